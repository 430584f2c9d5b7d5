#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "common/src/util/DeepPtr.h"
#include "common/src/util/DigestCache.h"

namespace zagent::common {

// The octal digits of a mode without its type bits, read as a decimal number: mode 0100644 is 644.
std::uint32_t PermissionOf(std::uint32_t mode);

// Description of a file object: where it is, whose it is, and what a stat said of it.
class ImageInfo {
 public:
  // Every number is -1 and every text but the path empty: all that a SYSCALL record says of an executable.
  explicit ImageInfo(std::string path);
  // What a PATH record says of an object: the three times are 0.
  ImageInfo(std::string device, std::uint32_t permission, std::uint64_t inode, std::string path, std::uint32_t group_id,
            std::string group_name, std::string owner_name, std::uint32_t owner_id, std::string text);
  ImageInfo(std::string path, const struct stat& stat);

  [[nodiscard]] const std::string& GetDevice() const { return device_; }
  [[nodiscard]] std::uint32_t GetPermission() const { return permission_; }
  [[nodiscard]] std::uint64_t GetInode() const { return inode_; }
  [[nodiscard]] const std::string& GetPath() const { return path_; }
  [[nodiscard]] std::uint32_t GetGroupId() const { return group_id_; }
  [[nodiscard]] const std::string& GetGroupName() const { return group_name_; }
  [[nodiscard]] const std::string& GetOwnerName() const { return owner_name_; }
  [[nodiscard]] std::uint32_t GetOwnerId() const { return owner_id_; }
  [[nodiscard]] const std::string& GetText() const;
  // SHA-256 of the file's content in lowercase hexadecimal, on demand: computed at the first question and only while
  // the file at the path is still this one. With the cache of those who want all digests of a file, it is read once for
  // all of them. Throws common::util::HashGeneratorException when there is none.
  [[nodiscard]] const std::string& GetDigest(util::DigestCache* cache = nullptr) const;
  [[nodiscard]] std::int64_t GetModificationTime() const { return modification_time_; }  // seconds
  [[nodiscard]] std::int64_t GetAccessTime() const { return access_time_; }              // seconds
  [[nodiscard]] std::int64_t GetChangeTime() const { return change_time_; }              // seconds
  [[nodiscard]] bool IsSymlink() const { return is_symlink_; }

  void SetNames(std::string owner_name, std::string group_name);
  void SetPath(std::string path) { path_ = std::move(path); }
  void SetDevice(std::string device) { device_ = std::move(device); }

 private:
  // What hardly any object is ever asked for.
  struct Rare {
    std::string text;
    std::string digest;
  };

  std::string device_;
  std::uint32_t permission_ = static_cast<std::uint32_t>(-1);
  std::uint64_t inode_ = static_cast<std::uint64_t>(-1);
  std::string path_;
  std::uint32_t group_id_ = static_cast<std::uint32_t>(-1);
  std::string group_name_;
  std::string owner_name_;
  std::uint32_t owner_id_ = static_cast<std::uint32_t>(-1);
  std::int64_t modification_time_ = -1;
  std::int64_t access_time_ = -1;
  std::int64_t change_time_ = -1;
  bool is_symlink_ = false;
  mutable util::DeepPtr<Rare> rare_;
};

}  // namespace zagent::common
