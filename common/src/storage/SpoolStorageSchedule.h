#pragma once

#include <cstdint>
#include <functional>

#include "common/src/tasks/RememberedTime.h"
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

  [[nodiscard]] std::int64_t NextRunTime() override { return *next_sync_.Get(); }
  void OnClockStep(std::chrono::nanoseconds step) override;

  // Post, but throws StorageException "SpoolStorageSchedule::AddTask: task cannot be empty".
  std::uint64_t AddTask(Task&& task, std::uint64_t bytes = 0, std::uint64_t limit = kNoLimit);

  // The next sync comes `seconds` from now.
  void ScheduleSync(std::uint64_t seconds);

 protected:
  [[nodiscard]] std::optional<util::Clock::SystemTime> WorkTime() override;
  void Work() override;
  void LogFailure(const std::exception& error) override;

 private:
  const std::function<void()> sync_callback_;
  RememberedTime next_sync_;  // set from the constructor on
};

}  // namespace zagent::common::internal
