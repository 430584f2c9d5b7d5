#pragma once

#include <cstddef>
#include <stdexcept>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {

class DataFormatterException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Turns items into the bytes of one stored file. Used by one thread at a time.
class DataFormatter {
 public:
  DataFormatter() = default;
  DataFormatter(const DataFormatter&) = delete;
  DataFormatter& operator=(const DataFormatter&) = delete;
  virtual ~DataFormatter() = default;

  // Takes one item. Throws DataFormatterException and keeps nothing of an item that it cannot hold.
  virtual void Append(const Bytes& data) = 0;
  // Everything appended so far as the payload of one file. Throws DataFormatterException.
  virtual Bytes Finish() = 0;
  // Bytes held; 0 exactly when nothing was appended since Clear.
  [[nodiscard]] virtual std::size_t Size() const = 0;
  virtual void Clear() = 0;
  // What Finish has given last is on disk.
  virtual void OnStored() {}
};

}  // namespace zagent::common
