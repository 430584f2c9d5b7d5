#include "src/audit/events/AttributeEvent.h"

#include <utility>

#include "src/audit/events/SyscallSet.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

constexpr SyscallSet<18> kFollowing = {
    90,  91,  92,  93,        // chmod, fchmod, chown, fchown
    132, 235, 261, 280,       // utime, utimes, futimesat, utimensat
    188, 190, 191, 193, 194,  // setxattr, fsetxattr, getxattr, fgetxattr, listxattr
    196, 197, 199,            // flistxattr, removexattr, fremovexattr
    260, 268,                 // fchownat, fchmodat
};
// lchown, lsetxattr, lgetxattr, llistxattr, lremovexattr: the link itself is meant.
constexpr SyscallSet<5> kNotFollowing = {94, 189, 192, 195, 198};

}  // namespace

AttributeEvent::AttributeEvent(auparse_state_t* state, std::shared_ptr<edr::LibMagicWrapper> lib_magic)
    : FileEvent(std::move(lib_magic)) {
  Feed(state);
}

AttributeEvent::AttributeEvent(RecordSource& source, std::shared_ptr<edr::LibMagicWrapper> lib_magic)
    : FileEvent(std::move(lib_magic)) {
  Feed(source);
}

std::unique_ptr<edr::Event> AttributeEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new AttributeEvent(*this));
}

void AttributeEvent::Validate() {
  FileEvent::Validate();
  if (!TypeWord().empty() && TypeWord() != "NORMAL") {
    throw edr::EventException("Missing normal PATH record for Attribute event");
  }
  const bool follow = Contains(kFollowing, Syscall());
  if (!follow && !Contains(kNotFollowing, Syscall())) {
    throw edr::EventException("Invalid syscall for Attribute event: " + std::to_string(Syscall()));
  }
  Stat(follow);
  if (!stat_) {
    throw edr::EventException("File stat does not exist for " + GetAction() + " event with ID " +
                              std::to_string(GetId()));
  }
  new_file_.emplace(file_->GetDevice(), common::PermissionOf(stat_->st_mode), file_->GetInode(), file_->GetPath(),
                    stat_->st_gid, common::GroupName(stat_->st_gid), common::UserName(stat_->st_uid), stat_->st_uid,
                    "");
}

}  // namespace zagent::audit::internal
