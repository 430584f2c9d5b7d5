#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>

#include "common/src/tasks/AsyncTask.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// A task that knows when it next wants to run. Concrete schedules end their Execute with Schedule::Execute(), which
// wakes the Scheduler; the base wakes it a second time when the run is idle, so that a RunNow() in between is seen.
class Schedule : public AsyncTask {
 protected:
  // Only wakes the Scheduler.
  void Execute() override;

 public:
  Schedule();
  Schedule(const Schedule&) = delete;
  Schedule& operator=(const Schedule&) = delete;
  ~Schedule() override;

  // Takes back an earlier RunNow, unless no thread can be made.
  void Start() override;

  // Called by the Scheduler without its lock.
  virtual void OnRegistered() {}
  virtual void OnUnregistered() {}

  // When the schedule next wants to run: nanoseconds since the epoch on the system clock. Called on the Scheduler's
  // thread with the Scheduler's lock held: it returns at once and calls no Scheduler operation. A schedule that wants
  // to run may answer with the present time.
  [[nodiscard]] virtual std::int64_t NextRunTime() = 0;

  // The system clock was stepped by `step`, forward or back: whatever time of it the schedule remembers moves by as
  // much, so that it waits neither longer nor shorter than before. Called without a lock, from any thread, during a
  // run too. A time that was noted after the step but before this call moves a second time; keep it within the
  // schedule's own interval of the present time.
  virtual void OnClockStep(std::chrono::nanoseconds /*step*/) {}

  // True when a run should start now: forced or past its time, and no run under way. Asks NextRunTime once and hands
  // its answer out. The clock is read after it, or a schedule that answers "now" would always lie a moment ahead.
  [[nodiscard]] bool IsDue(const util::Clock& clock, std::int64_t* next_run_time = nullptr);

  // Makes the next check treat the schedule as due, whatever its time says. From any thread, and from Execute too.
  void RunNow();

  // `callback` wakes the Scheduler. It is called without any lock of the schedule.
  void SetOnFinished(std::function<void()> callback);
  void ClearOnFinished();

 protected:
  // At the end of every Cancel, whether there was a run or not. Called without a lock.
  virtual void OnCancelled() {}
  void FireOnFinished();

 private:
  std::atomic<bool> forced_{false};
  std::mutex callback_mutex_;
  std::function<void()> on_finished_;
};

}  // namespace zagent::common
