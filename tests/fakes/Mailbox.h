#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace zagent::fakes {

// Where another thread leaves things for a test. Take waits for the next one; only a test that has already failed waits
// to the end of its patience.
template <class T>
class Mailbox {
 public:
  static constexpr std::chrono::seconds kPatience{20};

  void Put(T thing) {
    // Notified under the lock: the test may end, and this with it, as soon as it has what it waited for.
    const std::lock_guard lock(mutex_);
    things_.push_back(std::move(thing));
    arrived_.notify_all();
  }

  std::optional<T> Take() {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, kPatience, [&] { return !things_.empty(); })) return std::nullopt;
    std::optional<T> first(std::move(things_.front()));
    things_.pop_front();
    return first;
  }

  [[nodiscard]] bool IsEmpty() const {
    const std::lock_guard lock(mutex_);
    return things_.empty();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<T> things_;
};

}  // namespace zagent::fakes
