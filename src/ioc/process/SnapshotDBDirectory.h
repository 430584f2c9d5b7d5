#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::ioc::internal::models {

// A row of Directory: the last state of a folder that was reported. Times as whoever writes the row counts them.
struct SnapshotDBDirectory {
  SnapshotDBDirectory() = default;
  // Throws std::out_of_range for a row that is cut short.
  explicit SnapshotDBDirectory(const common::Bytes& row);
  [[nodiscard]] common::Bytes ToRow() const;
  [[nodiscard]] bool operator==(const SnapshotDBDirectory&) const = default;

  std::string row_id;
  std::string path;
  std::int64_t creation_time = 0;
  std::int64_t last_write_time = 0;
  std::int64_t last_access_time = 0;
  std::int64_t last_change_time = 0;
};

}  // namespace zagent::ioc::internal::models
