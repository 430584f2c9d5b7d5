#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// Starts each registered schedule when it is due, from one timer thread that sleeps until the earliest next run (one
// day at the most). Holds weak pointers: a schedule that its owner destroys simply disappears.
//
// All operations may be called from any thread, but Stop, UnregisterSchedule and RemoveAllSchedules not from the run of
// a schedule that they would wait for. Lock order: this class's mutex, then a schedule's; never the reverse.
class Scheduler {
 public:
  explicit Scheduler(util::Clock& clock = util::Clock::Real());
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  ~Scheduler();

  // Throws std::runtime_error "Start: Start cannot be called when the Scheduler is running".
  void Start();
  // Cancels running schedules and waits for each, then ends the timer thread. Schedules stay registered.
  void Stop();
  [[nodiscard]] bool IsRunning() const;

  // Throw std::runtime_error with the operation's name on a null pointer, a second registration, an unknown schedule.
  void RegisterSchedule(const std::shared_ptr<Schedule>& schedule);
  // On return the schedule runs no more and never will by this Scheduler.
  void UnregisterSchedule(const std::shared_ptr<Schedule>& schedule);
  void RemoveAllSchedules();

  // The system clock was stepped by `step` (see ClockStepWatch): lets every schedule, a running one too, move the times
  // that it remembers, and looks at all of them anew. A timer that was set before a step back would sleep it off.
  void OnClockStep(std::chrono::nanoseconds step);

 private:
  enum class State { Stopped = 0, Running = 1, Stopping = 2 };

  // Wakes the timer thread. The schedules' callbacks share it, so that a call that comes late finds it alive, and it
  // has a mutex of its own, so that a run which ends never waits for a walk through the schedules.
  struct WakeUp {
    std::mutex mutex;
    std::condition_variable condition;
    std::atomic<bool> updated{false};

    void Update();
  };

  void Run();
  util::Clock::SystemTime StartDueSchedules();
  // Without the lock.
  void ForEachSchedule(const std::function<void(Schedule&)>& visit);
  static void Detach(const std::shared_ptr<Schedule>& schedule);

  util::Clock& clock_;
  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<Schedule>> schedules_;  // in the order of registration
  std::thread thread_;
  std::atomic<State> state_{State::Stopped};  // becomes Stopping under the mutex of wake_up_
  const std::shared_ptr<WakeUp> wake_up_ = std::make_shared<WakeUp>();
};

}  // namespace zagent::common
