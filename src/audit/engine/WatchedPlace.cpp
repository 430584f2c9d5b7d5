#include "src/audit/engine/WatchedPlace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>

#include "src/audit/events/PathResolution.h"
#include "src/audit/rules/KernelRules.h"

namespace zagent::audit::internal {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

Sight::State StateOf(int error) {
  return IsPathMissing(error) ? Sight::State::Gone : Sight::State::Unknown;
}

void FollowLink(const std::string& path, WatchedObject& object) {
  struct stat target {};
  std::optional<std::string> real = CanonicalPath(path);
  if (!real || stat(real->c_str(), &target) != 0 || !S_ISDIR(target.st_mode)) return;
  object.target = std::move(real);
  object.target_object = FileIdentity::Of(target);
}

}  // namespace

Sight LookAt(const WatchedPlace& place) {
  const bool is_folder = place.type == edr::ObjectType::Directory;
  const std::string path =
      is_folder ? place.path : place.path.substr(0, std::max<std::size_t>(place.path.rfind('/'), 1));
  Sight sight;
  sight.place = place;
  struct statx found {};
  // A folder on the way to a file may be a link: the kernel follows it.
  if (statx(AT_FDCWD, path.c_str(), is_folder ? AT_SYMLINK_NOFOLLOW : 0, STATX_BASIC_STATS | STATX_BTIME, &found) !=
      0) {
    sight.state = StateOf(errno);
    return sight;
  }
  const bool is_watchable = S_ISDIR(found.stx_mode) || S_ISLNK(found.stx_mode);
  sight.state = is_watchable ? Sight::State::There : Sight::State::Gone;
  sight.object.object = {makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino};
  if ((found.stx_mask & STATX_BTIME) != 0) {
    sight.object.born = found.stx_btime.tv_sec * kNanosecondsPerSecond + found.stx_btime.tv_nsec;
  }
  if (S_ISLNK(found.stx_mode)) FollowLink(path, sight.object);
  return sight;
}

}  // namespace zagent::audit::internal
