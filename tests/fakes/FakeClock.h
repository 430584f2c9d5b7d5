#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::fakes {

// A clock that stands still until a test moves it. Advance lets time pass; SetWall is somebody who sets the wall clock.
// Both wake every waiter whose deadline they pass, and AwaitWaiters lets a test wait until a thread has really gone to
// sleep.
class FakeClock final : public common::util::Clock {
 public:
  explicit FakeClock(SystemTime start = SystemTime(std::chrono::seconds(1'700'000'000)))
      : wall_(start), steady_(start.time_since_epoch()) {}

  [[nodiscard]] SystemTime Now() const override {
    const std::lock_guard lock(mutex_);
    return wall_;
  }

  [[nodiscard]] SteadyTime SteadyNow() const override {
    const std::lock_guard lock(mutex_);
    return steady_;
  }

  bool WaitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, SystemTime deadline,
                 const std::function<bool()>& predicate) override {
    return Wait(condition, lock, {&condition, lock.mutex(), deadline, std::nullopt}, predicate);
  }

  bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds duration, const std::function<bool()>& predicate) override {
    return Wait(condition, lock, {&condition, lock.mutex(), std::nullopt, SteadyNow() + duration}, predicate);
  }

  void Advance(std::chrono::nanoseconds duration) { Move(duration, duration); }
  // Sets the wall clock by so much; no time passes.
  void SetWall(std::chrono::nanoseconds shift) { Move(shift, std::chrono::nanoseconds::zero()); }

  // Blocks until at least `count` threads wait on this clock.
  void AwaitWaiters(std::size_t count) {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return waiters_.size() >= count; });
  }

  // When the next waiting thread will wake, as the wall clock would show it if nobody sets it; the far future without a
  // waiter.
  [[nodiscard]] SystemTime EarliestDeadline() const {
    const std::lock_guard lock(mutex_);
    SystemTime earliest = SystemTime::max();
    for (const Waiter* waiter : waiters_) {
      earliest = std::min(earliest, waiter->wall ? *waiter->wall : wall_ + (*waiter->steady - steady_));
    }
    return earliest;
  }

 private:
  // Exactly one of the two times is set.
  struct Waiter {
    std::condition_variable* condition;
    std::mutex* mutex;
    std::optional<SystemTime> wall;
    std::optional<SteadyTime> steady;
  };

  bool Wait(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, Waiter self,
            const std::function<bool()>& predicate) {
    {
      const std::lock_guard guard(mutex_);
      waiters_.push_back(&self);
      arrived_.notify_all();
    }
    condition.wait(lock, [&] { return predicate() || HasCome(self); });
    {
      const std::lock_guard guard(mutex_);
      waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
    }
    return predicate();
  }

  [[nodiscard]] bool HasCome(const Waiter& waiter) const {
    const std::lock_guard lock(mutex_);
    return waiter.wall ? wall_ >= *waiter.wall : steady_ >= *waiter.steady;
  }

  void Move(std::chrono::nanoseconds wall, std::chrono::nanoseconds steady) {
    std::vector<Waiter> woken;
    {
      const std::lock_guard lock(mutex_);
      wall_ += std::chrono::duration_cast<SystemTime::duration>(wall);
      steady_ += std::chrono::duration_cast<SteadyTime::duration>(steady);
      for (const Waiter* waiter : waiters_) woken.push_back(*waiter);
    }
    for (const Waiter& waiter : woken) {
      // The waiter's mutex makes sure that it has tested the time before this change or sleeps already. Whoever waits
      // here must outlive the call, which a test that owns both the clock and the waiting object guarantees.
      { const std::lock_guard lock(*waiter.mutex); }
      waiter.condition->notify_all();
    }
  }

  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  SystemTime wall_;
  SteadyTime steady_;
  std::vector<Waiter*> waiters_;
};

}  // namespace zagent::fakes
