#include "src/audit/events/AttributeEvent.h"

#include <tuple>
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

constexpr SyscallSet<2> kChmods = {90, 91};      // chmod, fchmod: the mode comes second
constexpr std::uint32_t kFchmodAt = 268;         // third
constexpr SyscallSet<3> kChowns = {92, 93, 94};  // chown, fchown, lchown: owner and group come second and third
constexpr std::uint32_t kFchownAt = 260;         // third and fourth

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
    if (Services().extended_coverage) {
      new_file_ = AsTheCallSaid();
    } else {
      Refuse("File stat does not exist for " + GetAction() + " event with ID " + std::to_string(GetId()));
    }
    return;
  }
  new_file_ = AsOnDisk();
}

void AttributeEvent::Refresh() {
  FileEvent::Refresh();
  if (state_) new_file_ = AsOnDisk();
}

void AttributeEvent::UpdateFilePath(const std::string& path) {
  FileEvent::UpdateFilePath(path);
  if (new_file_) new_file_->SetPath(path);
}

common::ImageInfo AttributeEvent::AsOnDisk() const {
  return {file_->GetDevice(),
          common::PermissionOf(state_->mode),
          file_->GetInode(),
          file_->GetPath(),
          state_->gid,
          common::GroupName(state_->gid),
          common::UserName(state_->uid),
          state_->uid,
          ""};
}

// The file is gone and with it what there was to see: what is left is what the call wanted.
common::ImageInfo AttributeEvent::AsTheCallSaid() const {
  constexpr std::uint32_t kUnchanged = static_cast<std::uint32_t>(-1);
  const auto argument = [this](std::size_t index) {
    return HasArgument(index) ? static_cast<std::uint32_t>(Argument(index)) : kUnchanged;
  };
  std::uint32_t mode = kUnchanged;
  std::uint32_t owner = kUnchanged;
  std::uint32_t group = kUnchanged;
  if (IsSuccessful()) {
    if (Contains(kChmods, Syscall())) mode = argument(1);
    if (Syscall() == kFchmodAt) mode = argument(2);
    if (Contains(kChowns, Syscall())) std::tie(owner, group) = std::pair(argument(1), argument(2));
    if (Syscall() == kFchownAt) std::tie(owner, group) = std::pair(argument(2), argument(3));
  }
  if (owner == kUnchanged) owner = file_->GetOwnerId();
  if (group == kUnchanged) group = file_->GetGroupId();
  return {file_->GetDevice(),
          mode == kUnchanged ? file_->GetPermission() : common::PermissionOf(mode),
          file_->GetInode(),
          file_->GetPath(),
          group,
          common::GroupName(group),
          common::UserName(owner),
          owner,
          ""};
}

}  // namespace zagent::audit::internal
