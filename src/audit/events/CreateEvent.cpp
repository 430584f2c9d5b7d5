#include "src/audit/events/CreateEvent.h"

#include <fcntl.h>

#include <utility>

#include "src/audit/events/SyscallSet.h"

namespace zagent::audit::internal {
namespace {

constexpr SyscallSet<7> kMaking = {83, 85, 86, 133, 258, 259, 265};  // mkdir, creat, link, mknod and their -at forms
constexpr SyscallSet<2> kLinking = {88, 266};                        // symlink, symlinkat
constexpr SyscallSet<2> kOpenAt = {257, 304};                        // openat, open_by_handle_at
constexpr std::uint32_t kOpen = 2;

}  // namespace

CreateEvent::CreateEvent(RecordSource& source, Context context) : FileEvent(std::move(context)) {
  Feed(source, kRecords);
}

std::unique_ptr<edr::Event> CreateEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new CreateEvent(*this));
}

void CreateEvent::Validate() {
  FileEvent::Validate();
  if (Refusal() != nullptr) return;
  if (object_type_ == edr::ObjectType::Directory) LearnFolder();
  if (ObjectWord() != TypeWord::None && ObjectWord() != TypeWord::Create) {
    throw edr::EventException("Missing create PATH record for Create event");
  }
  const std::uint32_t syscall = Syscall();
  if (syscall == kOpen) {
    if ((Argument(1) & O_CREAT) == 0) throw edr::EventException("open() must specify O_CREAT for Create event");
  } else if (Contains(kOpenAt, syscall)) {
    if ((Argument(2) & O_CREAT) == 0) {
      throw edr::EventException("openat()/open_by_handle_at() must specify O_CREAT for Create event");
    }
  } else if (!Contains(kMaking, syscall) && !Contains(kLinking, syscall)) {
    throw edr::EventException("Invalid syscall for Create event: " + std::to_string(syscall));
  }
  // A new symbolic link is the object itself, not what it leads to.
  Stat(!Contains(kLinking, syscall));
}

}  // namespace zagent::audit::internal
