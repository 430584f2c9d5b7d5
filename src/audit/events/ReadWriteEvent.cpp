#include "src/audit/events/ReadWriteEvent.h"

#include <fcntl.h>

#include <utility>

#include "src/audit/events/SyscallSet.h"

namespace zagent::audit::internal {
namespace {

constexpr SyscallSet<4> kReads = {0, 17, 19, 295};   // read, pread64, readv, preadv
constexpr SyscallSet<4> kWrites = {1, 18, 20, 296};  // write, pwrite64, writev, pwritev
constexpr SyscallSet<2> kOpenAt = {257, 304};        // openat, open_by_handle_at
constexpr std::uint32_t kOpen = 2;

}  // namespace

ReadWriteEvent::ReadWriteEvent(RecordSource& source, Context context) : FileEvent(std::move(context)) {
  Feed(source, kRecords);
}

std::unique_ptr<edr::Event> ReadWriteEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new ReadWriteEvent(*this));
}

std::string ReadWriteEvent::GetAction() const {
  switch (type_) {
    case edr::EventType::Create:
      return "Create";
    case edr::EventType::Read:
      return "Read";
    default:
      return "Write";
  }
}

void ReadWriteEvent::Validate() {
  FileEvent::Validate();
  if (Refusal() != nullptr) return;
  const TypeWord word = ObjectWord();
  if (word != TypeWord::None && word != TypeWord::Normal && word != TypeWord::Create) {
    throw edr::EventException(std::string("Invalid type of PATH record for Write event: ") + TextOf(word));
  }
  const std::uint32_t syscall = Syscall();
  bool reads = Contains(kReads, syscall);
  if (syscall == kOpen) {
    reads = (Argument(1) & O_ACCMODE) == O_RDONLY;
  } else if (Contains(kOpenAt, syscall)) {
    reads = (Argument(2) & O_ACCMODE) == O_RDONLY;
  } else if (!reads && !Contains(kWrites, syscall)) {
    throw edr::EventException("Invalid syscall for Write event: " + std::to_string(syscall));
  }
  const edr::EventType changed = word == TypeWord::Create ? edr::EventType::Create : edr::EventType::Write;
  type_ = reads ? edr::EventType::Read : changed;
  Stat(true);
}

}  // namespace zagent::audit::internal
