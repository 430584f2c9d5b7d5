#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/src/tasks/Schedule.h"
#include "common/src/tasks/Task.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

class Scheduler;

// Nobody is left to run what a synchronous call waits for.
class TaskNotRunException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A queue of tasks and the one thread that runs them in their order. The first task starts a run, which lingers for
// more and then disappears; so a burst of tasks is served by one thread. Behind a task the run naps for kNap, in which
// nothing wakes it but kBatch tasks, a queue that has passed half of its bound, somebody who waits, and the end: tasks
// that come one by one cost a wake-up each nap instead of one each.
//
//   auto tasks = std::make_shared<TaskSchedule>(10);
//   scheduler.RegisterSchedule(tasks);
//   tasks->AddTask([] { ... });                                              // asynchronous
//   const Rows rows = tasks->Call(scheduler, [&] { return db.Query(sql); });  // synchronous
//
// Tasks are added, taken back and waited for from any thread. A task is destroyed right after it ran, or when it is
// refused, taken back or left over at the end, never with a lock held: what it owns (an Answer) hears of each. What a
// task throws (std::exception) is logged, and the next one runs. The run takes tasks from the queue by the block, so
// that a burst costs it a lock each kBlock tasks instead of one each.
//
// After Cancel every further task is refused; what was queued before still runs before the run under way ends. A base
// of a class that must lose nothing chooses the other policy: it accepts until Close, a cancelled run serves what was
// queued before the cancel, and Close runs the rest.
class TaskSchedule : public Schedule {
 public:
  using Task = common::Task;
  static constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();
  static constexpr std::uint64_t kRefused = 0;  // no task has this number
  static constexpr std::chrono::milliseconds kNap{5};
  static constexpr std::size_t kBatch = 256;
  static constexpr std::size_t kBlock = 32;

  // A run without tasks stays for `idle_seconds`.
  explicit TaskSchedule(std::uint64_t idle_seconds, util::Clock& clock = util::Clock::Real());
  TaskSchedule(const TaskSchedule&) = delete;
  TaskSchedule& operator=(const TaskSchedule&) = delete;
  ~TaskSchedule() override;

  void OnRegistered() override;
  void OnUnregistered() override;
  // A day away: only a task makes the schedule run.
  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;

  // False when the task is refused. An empty task is one that fails when it runs.
  bool AddTask(Task&& task) { return Post(std::move(task)) != kRefused; }

  // Queues a task that keeps `bytes` of memory until it starts. Returns its number; kRefused when nothing is taken any
  // more or when more than `limit` bytes would wait. Refusals at the limit are counted into one warning a minute.
  std::uint64_t Post(Task&& task, std::uint64_t bytes = 0, std::uint64_t limit = kNoLimit);

  // What Post was told of the tasks that have not started. From any thread.
  [[nodiscard]] std::uint64_t GetWaitingBytes() const { return waiting_bytes_; }

  // Takes back a task that is still in the queue and destroys it. False when the run has taken it.
  bool TakeBack(std::uint64_t number);

  // Runs a task, without a bound in bytes, and returns after it was destroyed. On the thread of the tasks it runs at
  // once, ahead of those that wait. False when the task was refused, or taken back because nothing would have run it:
  // the Scheduler is stopped, or does not know this schedule, and no run is under way. What the task throws is logged.
  bool Await(const Scheduler& scheduler, Task&& task, std::uint64_t bytes = 0);

  // Await with the value of `work` or what it throws. Throws TaskNotRunException where Await is false.
  template <typename Work>
  std::invoke_result_t<Work&> Call(const Scheduler& scheduler, Work work) {
    std::packaged_task<std::invoke_result_t<Work&>()> task(std::ref(work));
    auto outcome = task.get_future();
    if (!Await(scheduler, [&task] { task(); })) throw TaskNotRunException("Nothing runs the tasks.");
    return outcome.get();
  }

  // Refuses every further task and runs what waits on the caller's thread. Only when no run can be under way.
  void Close();

  // True on the thread that runs the tasks at this moment.
  [[nodiscard]] bool IsOwnThread() const { return runner_ == std::this_thread::get_id(); }

 protected:
  struct Policy {
    const char* owner = "";                    // named in the warning about refusals
    std::optional<std::chrono::seconds> idle;  // without a value a run stays until it is cancelled
    bool accept_until_close = false;
    std::chrono::milliseconds nap = kNap;  // another one for tests
  };
  TaskSchedule(const Policy& policy, util::Clock& clock);

  void Execute() override;
  void OnCancel() override;
  void OnCancelled() override;

  // What a run does beside its tasks when WorkTime has come; tasks that wait go first. WorkTime is asked with the
  // queue's lock held and after each Recheck; Work may throw what a task may.
  [[nodiscard]] virtual std::optional<util::Clock::SystemTime> WorkTime() { return std::nullopt; }
  virtual void Work() {}
  virtual void LogFailure(const std::exception& error);

  // Makes a run that sleeps look at WorkTime again.
  void Recheck();

  util::Clock& GetClock() const { return clock_; }

 private:
  struct Entry {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;
    Task task;
  };
  using Block = std::vector<Entry>;  // never more than kBlock, in their order

  // Whether somebody waits for the task.
  enum class Urgency { CanWait, Urgent };
  std::uint64_t Enqueue(Task&& task, std::uint64_t bytes, std::uint64_t limit, Urgency urgency);

  // What Execute does next.
  enum class Turn { RunTasks, Work, Leave };
  // `nap`: before it sleeps it naps.
  Turn AwaitTurn(bool nap);
  void RunTaken();
  // With mutex_ held:
  Block& BlockForNext();
  std::optional<Turn> NextTurn();
  void TakeBlock();
  void NoteCancel();
  bool MustLeave();
  Turn Leave();
  void Nap(std::unique_lock<std::mutex>& lock);
  void Sleep(std::unique_lock<std::mutex>& lock, std::optional<util::Clock::SystemTime> until);
  // Leaves the lock for the log line: what was looked at before may have changed.
  void ReportRefusals(std::unique_lock<std::mutex>& lock);
  // And without:
  void Serve();
  void EndRun();
  template <typename Operation>
  void Guarded(Operation&& operation);
  void Run(Task& task);
  void StopAccepting();
  void WakeCallers();
  [[nodiscard]] bool CanRunTasks(const Scheduler& scheduler) const;

  const Policy policy_;
  util::Clock& clock_;
  std::atomic<std::thread::id> runner_{};
  std::atomic<bool> registered_{false};

  mutable std::mutex mutex_;
  std::condition_variable wake_;      // the run sleeps here
  std::condition_variable answered_;  // synchronous callers wait here
  std::deque<Block> queue_;           // none is empty
  std::size_t queued_tasks_ = 0;
  Block spare_;  // the room of a block that has run, for the next one
  std::uint64_t last_number_ = 0;
  std::atomic<std::uint64_t> waiting_bytes_{0};  // of the queue, and of what the run has taken and not started
  std::uint64_t rechecks_ = 0;
  bool serving_ = false;                      // a run is there that will look at queue_ again
  bool asleep_ = false;                       // it waits on wake_ for the next task, and nobody has woken it
  bool napping_ = false;                      // it waits on wake_, but the next task can wait
  bool hurry_ = false;                        // set to end the nap
  bool stop_requested_ = false;               // nothing is accepted any more
  std::optional<std::uint64_t> last_to_run_;  // set once a run saw its cancel
  std::uint64_t refused_ = 0;                 // since the last warning
  util::Clock::SystemTime next_warning_ = util::Clock::SystemTime::min();

  // Of the run's thread alone:
  Block taken_;
  std::size_t started_ = 0;  // so many of taken_
};

}  // namespace zagent::common
