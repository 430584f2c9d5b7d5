#include "src/audit/events/CloneEvent.h"

#include <sched.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/src/util/ErrnoText.h"
#include "src/audit/events/SyscallSet.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

constexpr std::uint32_t kClone = 56;
constexpr SyscallSet<3> kCloning = {kClone, 57, 58};  // and fork, vfork

}  // namespace

CloneEvent::CloneEvent(RecordSource& source) {
  Feed(source, KindOf(record_type::kSyscall));
}

std::unique_ptr<edr::Event> CloneEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new CloneEvent(*this));
}

void CloneEvent::Validate() {
  SyscallEvent::Validate();
  if (!Contains(kCloning, Syscall())) {
    throw edr::EventException("Invalid syscall for Clone event: " + std::to_string(Syscall()));
  }
  if (Syscall() == kClone && (Argument(0) & CLONE_THREAD) != 0) {
    Refuse("Thread events are not tracked");
    return;
  }
  child_pid_ = ExitValue();
  struct stat found {};
  if (stat(ProcessPath().c_str(), &found) != 0) {
    const int error = errno;
    Refuse("Failed to stat " + ProcessPath() + " (" + common::util::ErrnoText(error) + ")");
    return;
  }
  image_.emplace(ProcessPath(), found);
  image_->SetNames(common::UserName(found.st_uid), common::GroupName(found.st_gid));
}

}  // namespace zagent::audit::internal
