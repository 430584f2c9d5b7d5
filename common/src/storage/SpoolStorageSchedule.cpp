#include "common/src/storage/SpoolStorageSchedule.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

constexpr std::uint64_t kIdleSyncSeconds = 86'400;

std::int64_t In(std::uint64_t seconds, const util::Clock& clock) {
  return util::ToNanoseconds(clock.Now() + std::chrono::seconds(seconds));
}

}  // namespace

SpoolStorageSchedule::SpoolStorageSchedule(std::function<void()> sync_callback, util::Clock& clock)
    : TaskSchedule({"SpoolStorage", std::nullopt, true}, clock),
      sync_callback_(std::move(sync_callback)),
      next_sync_(In(kIdleSyncSeconds, clock)),
      sync_interval_(kIdleSyncSeconds) {
  if (!sync_callback_) throw std::invalid_argument("SpoolStorageSchedule: 'syncCallback' is invalid");
}

SpoolStorageSchedule::~SpoolStorageSchedule() {
  Cancel();
}

void SpoolStorageSchedule::OnClockStep(std::chrono::nanoseconds step) {
  // A time that was set after the step is not moved beyond its own interval.
  next_sync_ = std::min(next_sync_ + step.count(), In(sync_interval_, GetClock()));
  TaskSchedule::OnClockStep(step);
}

std::uint64_t SpoolStorageSchedule::AddTask(Task task, std::uint64_t bytes, std::uint64_t limit) {
  if (!task) throw StorageException("SpoolStorageSchedule::AddTask: task cannot be empty");
  return Post(std::move(task), bytes, limit);
}

void SpoolStorageSchedule::ScheduleSync(std::uint64_t seconds) {
  sync_interval_ = seconds;
  next_sync_ = In(seconds, GetClock());
  Recheck();
  FireOnFinished();
  ZLOG_DEBUG("SpoolStorageSchedule: Cache sync scheduled after " << seconds << " seconds.");
}

std::optional<util::Clock::SystemTime> SpoolStorageSchedule::WorkTime() {
  return util::Clock::SystemTime(std::chrono::nanoseconds(next_sync_));
}

void SpoolStorageSchedule::Work() {
  ZLOG_DEBUG("SpoolStorageSchedule: Syncing cache.");
  // Before the call: it may ask for an earlier time, and one that throws must not come again at once.
  ScheduleSync(kIdleSyncSeconds);
  sync_callback_();
}

void SpoolStorageSchedule::LogFailure(const std::exception& error) {
  ZLOG_ERROR("SpoolStorageSchedule: " << error.what());
}

}  // namespace zagent::common::internal
