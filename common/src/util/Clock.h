#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace zagent::common::util {

// Time and the waiting for it, so that a test can own both. Implementations are thread-safe.
class Clock {
 public:
  using SystemTime = std::chrono::system_clock::time_point;
  using SteadyTime = std::chrono::steady_clock::time_point;

  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  [[nodiscard]] virtual SystemTime Now() const = 0;
  [[nodiscard]] virtual SteadyTime SteadyNow() const = 0;

  // All waits: on `condition` until `predicate` holds or the time has come; they return predicate(). `lock` is held
  // when predicate runs and on return. Whoever changes what the predicate reads notifies `condition`.

  // Until the wall clock shows `deadline`, whoever sets it in between: for what is due at a time of the day.
  virtual bool WaitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, SystemTime deadline,
                         const std::function<bool()>& predicate) = 0;

  // Until `duration` has passed, on the steady clock: a wall clock that is set neither stretches nor cuts it.
  virtual bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                       std::chrono::nanoseconds duration, const std::function<bool()>& predicate) {
    return condition.wait_for(lock, duration, predicate);
  }

  // Until `duration` has passed on the wall clock or on the steady one, whichever is first. A wall clock that is set
  // forward is noticed within a second.
  bool WaitOnEitherClock(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                         std::chrono::nanoseconds duration, const std::function<bool()>& predicate);

  // The clock of the machine. Lives as long as the process.
  static Clock& Real();
};

// Nanoseconds since the epoch.
inline std::int64_t ToNanoseconds(Clock::SystemTime time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

// "2024-05-01T10:20:30Z": UTC, whole seconds. A time that the calendar cannot hold gives an empty text.
std::string FormatUtc(std::int64_t nanoseconds_since_epoch);

}  // namespace zagent::common::util
