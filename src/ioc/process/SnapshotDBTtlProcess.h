#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/src/storage/StorageResult.h"
#include "src/ioc/process/ProcessInfo.h"

namespace zagent::ioc::internal::models {

// A row of TtlProcesses: a process as it was when it was saved. A secondary image whose path is empty is none.
struct SnapshotDBTtlProcess {
  struct Image {
    Image() = default;
    explicit Image(const common::ImageInfo& image);
    [[nodiscard]] common::ImageInfo ToImageInfo() const;
    [[nodiscard]] bool operator==(const Image&) const = default;

    std::string device_id;
    std::uint32_t file_attributes = 0;  // the permission
    std::uint64_t file_inode = 0;
    std::string file_path;
    std::uint32_t owner_gid = 0;
    std::string owner_group;
    std::string owner_name;
    std::uint32_t owner_uid = 0;
    std::string file_fs_attributes;  // the text of the image
  };

  SnapshotDBTtlProcess() = default;
  explicit SnapshotDBTtlProcess(const ProcessInfo& process);
  // Throws std::out_of_range for a row that is cut short, or whose process id is none. A tag without "=" is left out
  // with an error line "Tag value <text> is deformed in db.", a child that is no number without one.
  explicit SnapshotDBTtlProcess(const common::Bytes& row);
  [[nodiscard]] common::Bytes ToRow() const;
  // Without parent and children.
  [[nodiscard]] ProcessInfo::Description ToDescription() const;
  [[nodiscard]] bool operator==(const SnapshotDBTtlProcess&) const = default;

  std::int32_t process_id = 0;
  std::vector<std::string> arguments;
  std::uint32_t auid = 0;
  std::vector<std::int32_t> children;
  std::int64_t creation_time = 0;  // ns since the epoch
  std::string cwd;
  std::uint32_t euid = 0;
  Image image;
  std::int32_t parent = 0;
  std::int64_t score = 0;
  Image secondary_image;
  std::vector<std::pair<std::string, std::string>> tags;
  std::uint32_t uid = 0;
};

}  // namespace zagent::ioc::internal::models
