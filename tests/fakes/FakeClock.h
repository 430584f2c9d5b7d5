#pragma once

#include <algorithm>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::fakes {

// A clock that stands still until a test moves it. Advance wakes every waiter whose deadline it passes, and
// AwaitWaiters lets a test wait until a thread has really gone to sleep.
class FakeClock final : public common::util::Clock {
 public:
  explicit FakeClock(SystemTime start = SystemTime(std::chrono::seconds(1'700'000'000))) : now_(start) {}

  [[nodiscard]] SystemTime Now() const override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  [[nodiscard]] SteadyTime SteadyNow() const override {
    const std::lock_guard lock(mutex_);
    return SteadyTime(now_.time_since_epoch());
  }

  bool WaitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, SystemTime deadline,
                 const std::function<bool()>& predicate) override {
    Waiter self{&condition, lock.mutex(), deadline};
    {
      const std::lock_guard guard(mutex_);
      waiters_.push_back(&self);
      arrived_.notify_all();
    }
    condition.wait(lock, [&] { return predicate() || Now() >= deadline; });
    {
      const std::lock_guard guard(mutex_);
      waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
    }
    return predicate();
  }

  void Advance(std::chrono::nanoseconds duration) {
    std::vector<Waiter> woken;
    {
      const std::lock_guard lock(mutex_);
      now_ += std::chrono::duration_cast<SystemTime::duration>(duration);
      for (const Waiter* waiter : waiters_) woken.push_back(*waiter);
    }
    for (const Waiter& waiter : woken) {
      // The waiter's mutex makes sure that it has tested the time before this change or sleeps already. Whoever waits
      // here must outlive the call, which a test that owns both the clock and the waiting object guarantees.
      { const std::lock_guard lock(*waiter.mutex); }
      waiter.condition->notify_all();
    }
  }

  // Blocks until at least `count` threads wait on this clock.
  void AwaitWaiters(std::size_t count) {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return waiters_.size() >= count; });
  }

  // The earliest time that a waiting thread has asked for; the far future without a waiter.
  [[nodiscard]] SystemTime EarliestDeadline() const {
    const std::lock_guard lock(mutex_);
    SystemTime earliest = SystemTime::max();
    for (const Waiter* waiter : waiters_) earliest = std::min(earliest, waiter->deadline);
    return earliest;
  }

 private:
  struct Waiter {
    std::condition_variable* condition;
    std::mutex* mutex;
    SystemTime deadline;
  };

  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  SystemTime now_;
  std::vector<Waiter*> waiters_;
};

}  // namespace zagent::fakes
