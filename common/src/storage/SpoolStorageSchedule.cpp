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
constexpr std::chrono::minutes kWarningInterval{1};

util::Clock::SystemTime FromNanoseconds(std::int64_t time) {
  return util::Clock::SystemTime(std::chrono::nanoseconds(time));
}

}  // namespace

SpoolStorageSchedule::SpoolStorageSchedule(std::function<void()> sync_callback, util::Clock& clock)
    : sync_callback_(std::move(sync_callback)),
      clock_(clock),
      next_sync_(util::ToNanoseconds(clock.Now() + std::chrono::seconds(kIdleSyncSeconds))) {
  if (!sync_callback_) throw std::invalid_argument("SpoolStorageSchedule: 'syncCallback' is invalid");
}

SpoolStorageSchedule::~SpoolStorageSchedule() {
  Cancel();
}

std::uint64_t SpoolStorageSchedule::AddTask(Task task, std::uint64_t bytes, std::uint64_t limit) {
  if (!task) throw StorageException("SpoolStorageSchedule::AddTask: task cannot be empty");
  std::uint64_t number = 0;
  bool serving = false;
  {
    const std::lock_guard lock(mutex_);
    if (closed_) return 0;
    if (limit != kNoLimit && waiting_bytes_ + bytes > limit) {
      ++refused_;
      ReportRefusals();
      return 0;
    }
    tasks_.push_back({last_number_ + 1, bytes, std::move(task)});
    number = ++last_number_;
    waiting_bytes_ += bytes;
    serving = serving_;
  }
  wake_.notify_all();
  // A run that serves finds the task itself; without one the Scheduler has to start the next.
  if (!serving) RunNow();
  return number;
}

bool SpoolStorageSchedule::RemoveTask(std::uint64_t number) {
  Entry removed;
  const std::lock_guard lock(mutex_);
  const auto entry =
      std::find_if(tasks_.begin(), tasks_.end(), [number](const Entry& waiting) { return waiting.number == number; });
  if (entry == tasks_.end()) return false;
  removed = std::move(*entry);
  tasks_.erase(entry);
  waiting_bytes_ -= removed.bytes;
  return true;
}

void SpoolStorageSchedule::ScheduleSync(std::uint64_t seconds) {
  next_sync_ = util::ToNanoseconds(clock_.Now() + std::chrono::seconds(seconds));
  { const std::lock_guard lock(mutex_); }
  wake_.notify_all();
  FireOnFinished();
  ZLOG_DEBUG("SpoolStorageSchedule: Cache sync scheduled after " << seconds << " seconds.");
}

void SpoolStorageSchedule::Close() {
  std::deque<Entry> left;
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    left.swap(tasks_);
    waiting_bytes_ = 0;
    if (refused_ != 0) {
      next_warning_ = util::Clock::SystemTime::min();
      ReportRefusals();
    }
  }
  runner_ = std::this_thread::get_id();
  for (; !left.empty(); left.pop_front()) RunTask(left.front().task);
  runner_ = std::thread::id();
}

void SpoolStorageSchedule::Execute() {
  runner_ = std::this_thread::get_id();
  last_to_run_.reset();
  Task task;
  for (Turn turn = AwaitTurn(task); turn != Turn::Leave; turn = AwaitTurn(task)) {
    if (turn == Turn::Sync) {
      Sync();
    } else {
      RunTask(task);
      task = nullptr;
    }
  }
  runner_ = std::thread::id();
  Schedule::Execute();
}

SpoolStorageSchedule::Turn SpoolStorageSchedule::AwaitTurn(Task& task) {
  std::unique_lock lock(mutex_);
  serving_ = true;
  for (;;) {
    ReportRefusals();
    // What was queued before the cancel still runs; what its callbacks queue does not, or a run might never end.
    if (IsCancelling() && !last_to_run_) last_to_run_ = last_number_;
    if (last_to_run_ && (tasks_.empty() || tasks_.front().number > *last_to_run_)) {
      serving_ = false;
      const bool tasks_left = !tasks_.empty();
      lock.unlock();
      if (tasks_left) RunNow();
      return Turn::Leave;
    }
    if (!tasks_.empty()) {
      task = std::move(tasks_.front().task);
      waiting_bytes_ -= tasks_.front().bytes;
      tasks_.pop_front();
      return Turn::RunTask;
    }
    const std::int64_t sync_time = next_sync_;
    if (sync_time <= util::ToNanoseconds(clock_.Now())) return Turn::Sync;
    util::Clock::SystemTime deadline = FromNanoseconds(sync_time);
    if (refused_ != 0) deadline = std::min(deadline, next_warning_);
    clock_.WaitUntil(wake_, lock, deadline,
                     [this, sync_time] { return !tasks_.empty() || IsCancelling() || next_sync_ != sync_time; });
  }
}

void SpoolStorageSchedule::RunTask(const Task& task) {
  try {
    task();
  } catch (const std::exception& error) {
    ZLOG_ERROR("SpoolStorageSchedule: " << error.what());
  }
}

void SpoolStorageSchedule::Sync() {
  ZLOG_DEBUG("SpoolStorageSchedule: Syncing cache.");
  // Before the call: it may ask for an earlier time, and one that throws must not come again at once.
  ScheduleSync(kIdleSyncSeconds);
  try {
    sync_callback_();
  } catch (const std::exception& error) {
    ZLOG_ERROR("SpoolStorageSchedule: " << error.what());
  }
}

void SpoolStorageSchedule::OnCancel() {
  { const std::lock_guard lock(mutex_); }
  wake_.notify_all();
}

void SpoolStorageSchedule::ReportRefusals() {
  const util::Clock::SystemTime now = clock_.Now();
  if (refused_ == 0 || now < next_warning_) return;
  ZLOG_WARNING("SpoolStorage: Refused " << refused_ << " operations: the task queue is full.");
  refused_ = 0;
  next_warning_ = now + kWarningInterval;
}

}  // namespace zagent::common::internal
