#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zagent::fakes {

// How long a test waits for what must happen before it says that it did not.
inline constexpr std::chrono::seconds kTestPatience{20};

// A one-way door between threads.
class Gate {
 public:
  void Open() {
    // Notifies under the lock: whoever waits may destroy the gate as soon as it is through.
    const std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  // False when it did not open in time.
  [[nodiscard]] bool Await(std::chrono::milliseconds patience = kTestPatience) {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, patience, [this] { return open_; });
  }
  [[nodiscard]] bool IsOpen() {
    const std::lock_guard lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

// Looks until `condition` holds; for states that nobody announces. False when it did not hold in time.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kTestPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

}  // namespace zagent::fakes
