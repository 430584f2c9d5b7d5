#pragma once

#include <atomic>
#include <condition_variable>
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
// All operations may be called from any thread. Lock order: this class's mutex, then a schedule's; never the reverse.
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

 private:
  enum class State { Stopped = 0, Running = 1, Stopping = 2 };

  void Run();
  void Update();
  static void Detach(const std::shared_ptr<Schedule>& schedule);

  util::Clock& clock_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::atomic<bool> updated_{false};
  std::atomic<State> state_{State::Stopped};
  std::thread thread_;
  std::vector<std::weak_ptr<Schedule>> schedules_;
};

}  // namespace zagent::common
