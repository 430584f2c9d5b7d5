#include "src/edr/process/ImageInfo.h"

#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/Digest.h"
#include "common/src/util/HashGenerator.h"
#include "src/edr/DigestPace.h"

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
      modification_time_(0),
      access_time_(0),
      change_time_(0) {
  if (!text.empty()) rare_.Get().text = std::move(text);
}

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

const std::string& ImageInfo::GetText() const {
  static const std::string kNone;
  const Rare* rare = rare_.Find();
  return rare != nullptr ? rare->text : kNone;
}

const std::string& ImageInfo::GetDigest(util::DigestCache* cache) const {
  std::string& digest = rare_.Get().digest;
  if (digest.empty()) {
    const util::HashGenerator generator(path_, device_, inode_,
                                        cache != nullptr ? util::HashKind::All : util::HashKind::Sha256, cache,
                                        edr::DigestPace::kMaxSize);
    const std::vector<unsigned char>& bytes = generator.GetSha256();
    digest = util::ToHex({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }
  return digest;
}

void ImageInfo::SetNames(std::string owner_name, std::string group_name) {
  owner_name_ = std::move(owner_name);
  group_name_ = std::move(group_name);
}

}  // namespace zagent::common
