#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {

// The byte form of a database row: its columns in table order, an integer as 8 bytes, a text as its length in 8 bytes
// and its bytes. Native byte order: a row never leaves the machine.
//
//   Serializer columns(row);
//   const std::string path = columns.GetString();
//   const std::int64_t size = columns.GetInteger();
class Serializer {
 public:
  static constexpr std::size_t kIntegerBytes = sizeof(std::int64_t);

  static void Put(Bytes& row, std::int64_t value);
  static void Put(Bytes& row, std::string_view text);

  // A row of these columns, integers and texts, in one piece of memory that fits.
  template <typename... Columns>
  [[nodiscard]] static Bytes MakeRow(const Columns&... columns) {
    Bytes row((SizeOf(columns) + ...));
    unsigned char* end = row.data();
    ((end = Write(columns, end)), ...);
    return row;
  }

  // Reads the columns of `row`, which must outlive the reader.
  explicit Serializer(const Bytes& row) : row_(row) {}
  explicit Serializer(Bytes&& row) = delete;

  // Throw std::out_of_range "Serializer: Insufficient bytes to get data" when a number or a length is cut short, and
  // "Serializer: Insufficient bytes to get string" when a text is shorter than its length says.
  std::int64_t GetInteger();
  std::string GetString();

  // True when every column has been read.
  [[nodiscard]] bool AtEnd() const { return position_ == row_.size(); }

 private:
  static std::size_t SizeOf(std::int64_t /*value*/) { return kIntegerBytes; }
  static std::size_t SizeOf(std::string_view text) { return kIntegerBytes + text.size(); }
  // Return where the next column begins.
  static unsigned char* Write(std::int64_t value, unsigned char* to) {
    std::memcpy(to, &value, kIntegerBytes);
    return to + kIntegerBytes;
  }
  static unsigned char* Write(std::string_view text, unsigned char* to) {
    to = Write(static_cast<std::int64_t>(text.size()), to);
    if (!text.empty()) std::memcpy(to, text.data(), text.size());
    return to + text.size();
  }

  const Bytes& row_;
  std::size_t position_ = 0;
};

}  // namespace zagent::common
