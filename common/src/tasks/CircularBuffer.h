#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>
#include <utility>

namespace zagent::common {

class CircularBufferException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The last values of something, at most `Capacity`, oldest first. For one thread.
template <typename T, std::size_t Capacity>
class CircularBuffer {
 public:
  // Throws CircularBufferException when it is full.
  void Insert(T value) {
    if (IsFull()) throw CircularBufferException("Cannot insert into a full Circular buffer");
    values_[(first_ + size_) % Capacity] = std::move(value);
    ++size_;
  }

  // The oldest value. Throws CircularBufferException when there is none.
  T Pop() {
    if (size_ == 0) throw CircularBufferException("Cannot pop from an empty Circular buffer");
    T value = std::move(values_[first_]);
    first_ = (first_ + 1) % Capacity;
    --size_;
    return value;
  }

  [[nodiscard]] bool IsFull() const { return size_ == Capacity; }
  [[nodiscard]] std::size_t Size() const { return size_; }

 private:
  std::array<T, Capacity> values_{};
  std::size_t first_ = 0;
  std::size_t size_ = 0;
};

}  // namespace zagent::common
