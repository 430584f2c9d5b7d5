#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::common::internal {

// The one thread of a spool: runs its tasks in order and calls the sync operation when its time has come. The first
// task starts a run, which stays until it is cancelled.
class SpoolStorageSchedule final : public Schedule {
 public:
  using Task = std::function<void()>;
  static constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

  // Throws std::invalid_argument "SpoolStorageSchedule: 'syncCallback' is invalid".
  SpoolStorageSchedule(std::function<void()> sync_callback, util::Clock& clock);
  SpoolStorageSchedule(const SpoolStorageSchedule&) = delete;
  SpoolStorageSchedule& operator=(const SpoolStorageSchedule&) = delete;
  ~SpoolStorageSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override { return next_sync_; }
  void OnRegistered() override { registered_ = true; }
  void OnUnregistered() override { registered_ = false; }
  [[nodiscard]] bool IsRegistered() const { return registered_; }

  // Queues a task that keeps `bytes` of memory until it runs. Returns its number; 0 when the queue is closed or would
  // hold more than `limit` bytes. The task is destroyed then, without a lock. Refusals at the limit are counted into
  // one warning a minute. Throws StorageException "SpoolStorageSchedule::AddTask: task cannot be empty".
  std::uint64_t AddTask(Task task, std::uint64_t bytes = 0, std::uint64_t limit = kNoLimit);
  // Takes back a task that has not started and destroys it. False when it has.
  bool RemoveTask(std::uint64_t number);

  // The next sync comes `seconds` from now.
  void ScheduleSync(std::uint64_t seconds);

  // Refuses every further task and runs what waits on the caller's thread. Only when no run can be under way.
  void Close();

  // True on the thread that runs the tasks at this moment.
  [[nodiscard]] bool IsOwnThread() const { return runner_ == std::this_thread::get_id(); }

 protected:
  void Execute() override;
  void OnCancel() override;

 private:
  struct Entry {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;
    Task task;
  };

  // What Execute does next.
  enum class Turn { RunTask, Sync, Leave };
  Turn AwaitTurn(Task& task);
  void RunTask(const Task& task);
  void Sync();
  void ReportRefusals();  // with mutex_ held

  const std::function<void()> sync_callback_;
  util::Clock& clock_;
  std::atomic<std::int64_t> next_sync_;  // nanoseconds since the epoch
  std::atomic<std::thread::id> runner_{};
  std::atomic<bool> registered_{false};

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Entry> tasks_;
  std::uint64_t last_number_ = 0;
  std::uint64_t waiting_bytes_ = 0;
  bool serving_ = false;                      // a run is there that will look at tasks_ again
  std::optional<std::uint64_t> last_to_run_;  // set once a cancel was seen
  bool closed_ = false;
  std::uint64_t refused_ = 0;  // since the last warning
  util::Clock::SystemTime next_warning_ = util::Clock::SystemTime::min();
};

}  // namespace zagent::common::internal
