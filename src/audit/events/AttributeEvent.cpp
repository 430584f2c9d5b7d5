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

AttributeEvent::AttributeEvent(RecordSource& source, Context context) : FileEvent(std::move(context)) {
  Feed(source, kRecords);
}

std::unique_ptr<edr::Event> AttributeEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new AttributeEvent(*this));
}

void AttributeEvent::Validate() {
  FileEvent::Validate();
  if (Refusal() != nullptr) return;
  if (ObjectWord() != TypeWord::None && ObjectWord() != TypeWord::Normal) {
    throw edr::EventException("Missing normal PATH record for Attribute event");
  }
  const bool follow = Contains(kFollowing, Syscall());
  if (!follow && !Contains(kNotFollowing, Syscall())) {
    throw edr::EventException("Invalid syscall for Attribute event: " + std::to_string(Syscall()));
  }
  Stat(follow);
  if (!state_) {
    Refuse("File stat does not exist for " + GetAction() + " event with ID " + std::to_string(GetId()));
    return;
  }
  new_file_.emplace(file_->GetDevice(), common::PermissionOf(state_->mode), file_->GetInode(), file_->GetPath(),
                    state_->gid, common::GroupName(state_->gid), common::UserName(state_->uid), state_->uid, "");
}

}  // namespace zagent::audit::internal
