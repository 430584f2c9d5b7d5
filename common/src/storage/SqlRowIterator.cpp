#include "common/src/storage/SqlRowIterator.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "common/src/storage/Serializer.h"

namespace zagent::common {

Bytes SqlRowIterator::Next() {
  const std::size_t left = rows_->size() - cursor_;
  if (left == 0) return {};
  std::uint64_t length = 0;
  if (left < sizeof(length)) throw std::out_of_range("Serializer: Insufficient bytes to get data");
  std::memcpy(&length, rows_->data() + cursor_, sizeof(length));
  if (length > left - sizeof(length)) throw std::out_of_range("SqlRowIterator::Next: Incomplete sql row");
  const auto first = rows_->begin() + static_cast<std::ptrdiff_t>(cursor_ + sizeof(length));
  cursor_ += sizeof(length) + static_cast<std::size_t>(length);
  return {first, rows_->begin() + static_cast<std::ptrdiff_t>(cursor_)};
}

void SqlRowIterator::Add(const Bytes& row) {
  if (row.empty()) throw std::runtime_error("SqlRowIterator::Add: 'row' cannot be empty");
  Serializer::Put(*rows_, static_cast<std::int64_t>(row.size()));
  rows_->insert(rows_->end(), row.begin(), row.end());
}

}  // namespace zagent::common
