#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/src/storage/StorageResult.h"

namespace zagent::ioc::internal::models {

// A row of File: the last state of a file that was reported. Times as whoever writes the row counts them, digests in
// hexadecimal, empty when they are not known.
struct SnapshotDBFile {
  // A row as views of texts that somebody else has.
  struct View {
    std::string_view row_id;
    std::string_view parent_id;
    std::int64_t size;
    std::int64_t creation_time;
    std::int64_t last_write_time;
    std::int64_t last_access_time;
    std::int64_t last_change_time;
    std::string_view md5;
    std::string_view sha1;
    std::string_view sha256;
  };

  SnapshotDBFile() = default;
  // Throws std::out_of_range for a row that is cut short.
  explicit SnapshotDBFile(const common::Bytes& row);
  [[nodiscard]] common::Bytes ToRow() const;
  [[nodiscard]] static common::Bytes ToRow(const View& file);
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
