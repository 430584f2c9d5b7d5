#include "src/edr/process/ImageInfo.h"

#include <utility>

#include "common/src/util/DeviceText.h"

namespace zagent::common {

std::uint32_t PermissionOf(std::uint32_t mode) {
  // The octal digits below the type bits, read as if they were decimal ones.
  std::uint32_t bits = mode & 0xFFFF0FFFU;
  std::uint32_t decimal = 0;
  for (std::uint32_t place = 1; bits != 0; bits >>= 3, place *= 10) decimal += (bits & 7U) * place;
  return decimal;
}

ImageInfo::ImageInfo(std::string path) : path_(std::move(path)) {}

ImageInfo::ImageInfo(std::string device, std::uint32_t permission, std::uint64_t inode, std::string path,
                     std::uint32_t group_id, std::string group_name, std::string owner_name, std::uint32_t owner_id,
                     std::string text)
    : device_(std::move(device)),
      permission_(permission),
      inode_(inode),
      path_(std::move(path)),
      group_id_(group_id),
      group_name_(std::move(group_name)),
      owner_name_(std::move(owner_name)),
      owner_id_(owner_id),
      text_(std::move(text)),
      modification_time_(0),
      access_time_(0),
      change_time_(0) {}

ImageInfo::ImageInfo(std::string path, const struct stat& stat)
    : device_(util::DeviceText(stat.st_dev)),
      permission_(PermissionOf(stat.st_mode)),
      inode_(stat.st_ino),
      path_(std::move(path)),
      group_id_(stat.st_gid),
      owner_id_(stat.st_uid),
      modification_time_(stat.st_mtime),
      access_time_(stat.st_atime),
      change_time_(stat.st_ctime),
      is_symlink_(S_ISLNK(stat.st_mode)) {}

void ImageInfo::SetNames(std::string owner_name, std::string group_name) {
  owner_name_ = std::move(owner_name);
  group_name_ = std::move(group_name);
}

}  // namespace zagent::common
