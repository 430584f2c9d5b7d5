#pragma once

#include <cstddef>
#include <memory>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {

// Walks a result set: rows in the form of Serializer, each preceded by its own length in 8 bytes. Copies share the
// bytes and have a cursor each; one thread at a time.
class SqlRowIterator {
 public:
  SqlRowIterator() : rows_(std::make_shared<Bytes>()) {}
  explicit SqlRowIterator(std::shared_ptr<Bytes> rows) : rows_(std::move(rows)) {}

  // The next row's bytes, empty at the end. Throws std::out_of_range "Serializer: Insufficient bytes to get data" on a
  // length that is cut short, and "SqlRowIterator::Next: Incomplete sql row" on a row shorter than its length says.
  Bytes Next();

  // Appends a row behind the last one. Throws std::runtime_error "SqlRowIterator::Add: 'row' cannot be empty".
  void Add(const Bytes& row);

 private:
  std::shared_ptr<Bytes> rows_;
  std::size_t cursor_ = 0;
};

}  // namespace zagent::common
