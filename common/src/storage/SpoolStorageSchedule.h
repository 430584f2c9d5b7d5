#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "common/src/tasks/TaskSchedule.h"
#include "common/src/util/Clock.h"

namespace zagent::common::internal {

// The one thread of a spool: runs its tasks in order and calls the sync operation when its time has come. The first
// task, or the first sync that is due, starts a run, which stays until it is cancelled. Tasks are accepted until Close.
class SpoolStorageSchedule final : public TaskSchedule {
 public:
  // Throws std::invalid_argument "SpoolStorageSchedule: 'syncCallback' is invalid".
  SpoolStorageSchedule(std::function<void()> sync_callback, util::Clock& clock);
  SpoolStorageSchedule(const SpoolStorageSchedule&) = delete;
  SpoolStorageSchedule& operator=(const SpoolStorageSchedule&) = delete;
  ~SpoolStorageSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override { return next_sync_; }
  void OnClockStep(std::chrono::nanoseconds step) override;

  // Post, but throws StorageException "SpoolStorageSchedule::AddTask: task cannot be empty".
  std::uint64_t AddTask(Task task, std::uint64_t bytes = 0, std::uint64_t limit = kNoLimit);

  // The next sync comes `seconds` from now.
  void ScheduleSync(std::uint64_t seconds);

 protected:
  [[nodiscard]] std::optional<util::Clock::SystemTime> WorkTime() override;
  void Work() override;
  void LogFailure(const std::exception& error) override;

 private:
  const std::function<void()> sync_callback_;
  std::atomic<std::int64_t> next_sync_;       // nanoseconds since the epoch
  std::atomic<std::uint64_t> sync_interval_;  // seconds, of the last ScheduleSync
};

}  // namespace zagent::common::internal
