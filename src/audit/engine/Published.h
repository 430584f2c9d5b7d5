#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace zagent::audit::internal {

// The newest version of a value that one thread makes and others look at: a version is replaced as a whole and never
// changed, so that nobody who looks waits for the one who makes the next. From any thread; the mutex is held for a copy
// of a pointer.
template <typename T>
class Published {
 public:
  void Set(std::shared_ptr<const T> value) {
    const std::lock_guard lock(mutex_);
    value_.swap(value);  // an old one that nobody looks at any more goes behind the lock
  }
  // Never null.
  [[nodiscard]] std::shared_ptr<const T> Get() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const T> value_ = std::make_shared<const T>();
};

}  // namespace zagent::audit::internal
