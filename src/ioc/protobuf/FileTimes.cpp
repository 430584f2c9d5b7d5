#include "src/ioc/protobuf/FileTimes.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include "common/src/util/DeviceText.h"

namespace zagent::ioc::internal::protobuf {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::optional<std::int64_t> CreationOf(const std::optional<FoundObject>& found, const std::string& device,
                                       std::uint64_t inode) {
  return found && found->inode == inode && found->device == device ? found->creation : std::nullopt;
}

}  // namespace

std::optional<FoundObject> LookAt(const std::string& path) {
  struct statx found {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_MODE | STATX_INO | STATX_SIZE | STATX_CTIME | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &found) != 0) return std::nullopt;
  FoundObject object{common::util::DeviceText(makedev(found.stx_dev_major, found.stx_dev_minor)), found.stx_ino,
                     found.stx_mode, static_cast<std::int64_t>(found.stx_size)};
  object.state.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  object.state.inode = found.stx_ino;
  object.state.size = object.size;
  object.state.changed_s = found.stx_ctime.tv_sec;
  object.state.changed_ns = found.stx_ctime.tv_nsec;
  if ((found.stx_mask & STATX_BTIME) != 0) object.creation = found.stx_btime.tv_sec * kNanosecondsPerSecond;
  return object;
}

ReportedObjects::Times TimesOf(const edr::Event& event, const common::ImageInfo& object,
                               const std::optional<FoundObject>& found) {
  const std::int64_t change = event.GetFileChangeTime();
  const auto creation = CreationOf(found, object.GetDevice(), object.GetInode());
  return {creation.value_or(change), event.GetFileModificationTime(), event.GetFileAccessTime(), change};
}

ReportedObjects::Times TimesOf(const std::string& path, const struct stat& stat) {
  const std::int64_t change = stat.st_ctime * kNanosecondsPerSecond;
  const auto creation = CreationOf(LookAt(path), common::util::DeviceText(stat.st_dev), stat.st_ino);
  return {creation.value_or(change), stat.st_mtime * kNanosecondsPerSecond, stat.st_atime * kNanosecondsPerSecond,
          change};
}

}  // namespace zagent::ioc::internal::protobuf
