#include "common/src/storage/SpoolStorageSchedule.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

constexpr std::uint64_t kIdleSyncSeconds = 86'400;

}  // namespace

SpoolStorageSchedule::SpoolStorageSchedule(std::function<void()> sync_callback, util::Clock& clock)
    : TaskSchedule({"SpoolStorage", std::nullopt, true}, clock),
      sync_callback_(std::move(sync_callback)),
      next_sync_(clock) {
  if (!sync_callback_) throw std::invalid_argument("SpoolStorageSchedule: 'syncCallback' is invalid");
  next_sync_.Set(std::chrono::seconds(kIdleSyncSeconds));
}

SpoolStorageSchedule::~SpoolStorageSchedule() {
  Cancel();
}

void SpoolStorageSchedule::OnClockStep(std::chrono::nanoseconds step) {
  next_sync_.Move(step);
  TaskSchedule::OnClockStep(step);
}

std::uint64_t SpoolStorageSchedule::AddTask(Task&& task, std::uint64_t bytes, std::uint64_t limit) {
  if (!task) throw StorageException("SpoolStorageSchedule::AddTask: task cannot be empty");
  return Post(std::move(task), bytes, limit);
}

void SpoolStorageSchedule::ScheduleSync(std::uint64_t seconds) {
  next_sync_.Set(std::chrono::seconds(seconds));
  // A run looks at the time before it sleeps, and the Scheduler hears of it when the run ends.
  if (!IsOwnThread()) {
    Recheck();
    FireOnFinished();
  }
  ZLOG_DEBUG("SpoolStorageSchedule: Cache sync scheduled after " << seconds << " seconds.");
}

std::optional<util::Clock::SystemTime> SpoolStorageSchedule::WorkTime() {
  return util::Clock::SystemTime(std::chrono::nanoseconds(*next_sync_.Get()));
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
