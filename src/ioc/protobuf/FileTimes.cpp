#include "src/ioc/protobuf/FileTimes.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <optional>

#include "common/src/util/DeviceText.h"

namespace zagent::ioc::internal::protobuf {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::optional<std::int64_t> CreationOf(const std::string& path, const std::string& device, std::uint64_t inode) {
  struct statx found {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &found) != 0) return std::nullopt;
  if ((found.stx_mask & STATX_BTIME) == 0 || found.stx_ino != inode) return std::nullopt;
  if (common::util::DeviceText(makedev(found.stx_dev_major, found.stx_dev_minor)) != device) return std::nullopt;
  return found.stx_btime.tv_sec * kNanosecondsPerSecond;
}

}  // namespace

ReportedObjects::Times TimesOf(const edr::Event& event, const common::ImageInfo& object) {
  const std::int64_t change = event.GetFileChangeTime();
  const auto creation = CreationOf(object.GetPath(), object.GetDevice(), object.GetInode());
  return {creation.value_or(change), event.GetFileModificationTime(), event.GetFileAccessTime(), change};
}

ReportedObjects::Times TimesOf(const std::string& path, const struct stat& stat) {
  const std::int64_t change = stat.st_ctime * kNanosecondsPerSecond;
  const auto creation = CreationOf(path, common::util::DeviceText(stat.st_dev), stat.st_ino);
  return {creation.value_or(change), stat.st_mtime * kNanosecondsPerSecond, stat.st_atime * kNanosecondsPerSecond,
          change};
}

}  // namespace zagent::ioc::internal::protobuf
