#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::ioc::internal::models {

// A row of File: the last state of a file that was reported. Times as whoever writes the row counts them, digests in
// hexadecimal, empty when they are not known.
struct SnapshotDBFile {
  SnapshotDBFile() = default;
  // Throws std::out_of_range for a row that is cut short.
  explicit SnapshotDBFile(const common::Bytes& row);
  [[nodiscard]] common::Bytes ToRow() const;
  [[nodiscard]] bool operator==(const SnapshotDBFile&) const = default;

  std::string row_id;
  std::string parent_id;
  std::int64_t size = 0;  // bytes
  std::int64_t creation_time = 0;
  std::int64_t last_write_time = 0;
  std::int64_t last_access_time = 0;
  std::int64_t last_change_time = 0;
  std::string md5;
  std::string sha1;
  std::string sha256;
};

}  // namespace zagent::ioc::internal::models
