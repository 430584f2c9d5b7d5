#include "common/src/storage/Serializer.h"

#include <cstring>
#include <stdexcept>

namespace zagent::common {

void Serializer::Put(Bytes& row, std::int64_t value) {
  const std::size_t end = row.size();
  row.resize(end + kIntegerBytes);
  std::memcpy(row.data() + end, &value, kIntegerBytes);
}

void Serializer::Put(Bytes& row, std::string_view text) {
  Put(row, static_cast<std::int64_t>(text.size()));
  // As bytes, which are copied in one go.
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  row.insert(row.end(), bytes, bytes + text.size());
}

std::int64_t Serializer::GetInteger() {
  if (row_.size() - position_ < kIntegerBytes) {
    throw std::out_of_range("Serializer: Insufficient bytes to get data");
  }
  std::int64_t value = 0;
  std::memcpy(&value, row_.data() + position_, kIntegerBytes);
  position_ += kIntegerBytes;
  return value;
}

std::string Serializer::GetString() {
  const std::size_t start = position_;
  // A negative length is larger than any row.
  const auto length = static_cast<std::uint64_t>(GetInteger());
  if (length > row_.size() - position_) {
    position_ = start;
    throw std::out_of_range("Serializer: Insufficient bytes to get string");
  }
  const auto first = row_.begin() + static_cast<std::ptrdiff_t>(position_);
  position_ += static_cast<std::size_t>(length);
  return {first, row_.begin() + static_cast<std::ptrdiff_t>(position_)};
}

}  // namespace zagent::common
