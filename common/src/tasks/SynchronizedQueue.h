#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace zagent::common {

class SynchronizedQueueException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The queue between two threads. Nothing blocks: the consumer tests or waits first, by the wake predicate of its
// ThreadedClass. It has no bound of its own; whoever pushes looks at Size.
template <typename T>
class SynchronizedQueue {
 public:
  SynchronizedQueue() = default;
  SynchronizedQueue(const SynchronizedQueue&) = delete;
  SynchronizedQueue& operator=(const SynchronizedQueue&) = delete;
  ~SynchronizedQueue() = default;

  void Push(T element) {
    const std::lock_guard lock(mutex_);
    elements_.push_back(std::move(element));
  }

  // The oldest element. Throws SynchronizedQueueException when there is none.
  T Pop() {
    const std::lock_guard lock(mutex_);
    if (elements_.empty()) throw SynchronizedQueueException("Cannot pop from an empty SynchronizedQueue");
    T element = std::move(elements_.front());
    elements_.pop_front();
    return element;
  }

  // Every element, oldest first. Throws SynchronizedQueueException when there is none.
  std::deque<T> PopAll() {
    const std::lock_guard lock(mutex_);
    if (elements_.empty()) throw SynchronizedQueueException("Cannot pop all from an empty SynchronizedQueue");
    return std::exchange(elements_, {});
  }

  [[nodiscard]] bool Empty() const {
    const std::lock_guard lock(mutex_);
    return elements_.empty();
  }
  [[nodiscard]] std::size_t Size() const {
    const std::lock_guard lock(mutex_);
    return elements_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::deque<T> elements_;
};

}  // namespace zagent::common
