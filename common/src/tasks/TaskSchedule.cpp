#include "common/src/tasks/TaskSchedule.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <memory>

#include "common/src/tasks/Scheduler.h"
#include "common/src/util/HeapTrim.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::chrono::seconds kFarAway{86'400};
constexpr std::uint64_t kLongestIdleSeconds = 86'400;
constexpr std::chrono::minutes kWarningInterval{1};

}  // namespace

template <typename Operation>
void TaskSchedule::Guarded(Operation&& operation) {
  try {
    operation();
  } catch (const std::exception& error) {
    LogFailure(error);
  }
}

void TaskSchedule::Run(Task& task) {
  Guarded(task);
  task = nullptr;
}

TaskSchedule::TaskSchedule(std::uint64_t idle_seconds, util::Clock& clock)
    : TaskSchedule(Policy{"TaskSchedule", std::chrono::seconds(std::min(idle_seconds, kLongestIdleSeconds))}, clock) {}

TaskSchedule::TaskSchedule(const Policy& policy, util::Clock& clock) : policy_(policy), clock_(clock) {}

TaskSchedule::~TaskSchedule() {
  Cancel();
}

void TaskSchedule::OnRegistered() {
  registered_ = true;
}

void TaskSchedule::OnUnregistered() {
  registered_ = false;
  WakeCallers();
}

std::int64_t TaskSchedule::NextRunTime() {
  return util::ToNanoseconds(clock_.Now() + kFarAway);
}

void TaskSchedule::OnClockStep(std::chrono::nanoseconds step) {
  {
    const std::lock_guard lock(mutex_);
    if (next_warning_ != util::Clock::SystemTime::min()) {
      next_warning_ = std::min(next_warning_ + std::chrono::duration_cast<util::Clock::SystemTime::duration>(step),
                               clock_.Now() + kWarningInterval);
    }
  }
  Recheck();
}

std::uint64_t TaskSchedule::Post(Task&& task, std::uint64_t bytes, std::uint64_t limit) {
  return Enqueue(std::move(task), bytes, limit, Urgency::CanWait);
}

std::uint64_t TaskSchedule::Enqueue(Task&& task, std::uint64_t bytes, std::uint64_t limit, Urgency urgency) {
  Task refused;  // destroyed after the lock is gone
  std::unique_lock lock(mutex_);
  if (stop_requested_) {
    refused = std::move(task);
    return kRefused;
  }
  if (limit != kNoLimit && waiting_bytes_ + bytes > limit) {
    refused = std::move(task);
    ++refused_;
    ReportRefusals(lock);
    return kRefused;
  }
  const std::uint64_t number = ++last_number_;
  Entry& entry = BlockForNext().emplace_back();
  entry.number = number;
  entry.bytes = bytes;
  entry.task = std::move(task);
  ++queued_tasks_;
  waiting_bytes_ += bytes;
  const bool serving = serving_;
  // One wake-up, however many tasks come until the run is awake.
  const bool is_filling = queued_tasks_ >= kBatch || (limit != kNoLimit && waiting_bytes_ > limit / 2);
  const bool ends_nap = napping_ && !hurry_ && (urgency == Urgency::Urgent || is_filling);
  if (ends_nap) hurry_ = true;
  const bool wake = std::exchange(asleep_, false) || ends_nap;
  lock.unlock();
  if (wake) wake_.notify_one();
  // A run that serves finds the task itself; without one the Scheduler has to start the next.
  if (!serving) RunNow();
  return number;
}

TaskSchedule::Block& TaskSchedule::BlockForNext() {
  if (!queue_.empty()) {
    Block& last = queue_.back();
    // What a cancelled run still serves shares no block with what comes behind it.
    const bool is_served = last_to_run_ && last.back().number <= *last_to_run_;
    if (last.size() < kBlock && !is_served) return last;
  }
  Block& block = queue_.emplace_back(std::exchange(spare_, {}));
  block.reserve(kBlock);
  return block;
}

bool TaskSchedule::TakeBack(std::uint64_t number) {
  Entry removed;  // destroyed after the lock is gone
  const std::lock_guard lock(mutex_);
  const auto block =
      std::find_if(queue_.begin(), queue_.end(), [&](const Block& tasks) { return tasks.back().number >= number; });
  if (block == queue_.end()) return false;
  const auto entry =
      std::find_if(block->begin(), block->end(), [&](const Entry& task) { return task.number == number; });
  if (entry == block->end()) return false;
  removed = std::move(*entry);
  block->erase(entry);
  if (block->empty()) queue_.erase(block);
  --queued_tasks_;
  waiting_bytes_ -= removed.bytes;
  return true;
}

bool TaskSchedule::Await(const Scheduler& scheduler, Task&& task, std::uint64_t bytes) {
  if (IsOwnThread()) {
    Task now = std::move(task);
    Guarded(now);
    return true;
  }
  bool ran = false;
  bool over = false;
  // The task's destruction is the end of the wait, whatever became of it.
  std::shared_ptr<void> end(nullptr, [this, &over](void*) {
    const std::lock_guard lock(mutex_);
    over = true;
    answered_.notify_all();
  });
  const std::uint64_t number = Enqueue(
      // The task goes first, because an Answer in it may only be given then.
      [&ran, end = std::move(end), task = std::move(task)]() mutable {
        ran = true;
        task();
      },
      bytes, kNoLimit, Urgency::Urgent);
  std::unique_lock lock(mutex_);
  answered_.wait(lock, [&] { return over || !CanRunTasks(scheduler); });
  if (!over) {
    lock.unlock();
    TakeBack(number);
    lock.lock();
    // Or it has started after all.
    answered_.wait(lock, [&] { return over; });
  }
  return ran;
}

void TaskSchedule::Close() {
  std::deque<Block> left;
  {
    std::unique_lock lock(mutex_);
    stop_requested_ = true;
    left.swap(queue_);
    queued_tasks_ = 0;
    waiting_bytes_ = 0;
    next_warning_ = util::Clock::SystemTime::min();
    ReportRefusals(lock);
  }
  runner_ = std::this_thread::get_id();
  for (; !left.empty(); left.pop_front()) {
    for (Entry& entry : left.front()) Run(entry.task);
  }
  runner_ = std::thread::id();
}

void TaskSchedule::Execute() {
  try {
    Serve();
  } catch (...) {
    // A queue whose run is believed to be there would never be served again.
    EndRun();
    throw;
  }
  EndRun();
}

void TaskSchedule::Serve() {
  runner_ = std::this_thread::get_id();
  {
    const std::lock_guard lock(mutex_);
    serving_ = true;
    last_to_run_.reset();
  }
  Turn turn = AwaitTurn(false);
  while (turn != Turn::Leave) {
    if (turn == Turn::Work) {
      Guarded([this] { Work(); });
    } else {
      RunTaken();
    }
    turn = AwaitTurn(turn == Turn::RunTasks);
  }
}

void TaskSchedule::RunTaken() {
  while (started_ < taken_.size()) {
    if (IsCancelling()) {
      const std::lock_guard lock(mutex_);
      NoteCancel();
    }
    Entry& entry = taken_[started_++];
    waiting_bytes_ -= entry.bytes;
    Run(entry.task);
  }
}

void TaskSchedule::EndRun() {
  runner_ = std::thread::id();
  bool more = false;
  {
    const std::lock_guard lock(mutex_);
    serving_ = false;
    asleep_ = false;
    napping_ = false;
    hurry_ = false;
    if (started_ < taken_.size()) {
      // A failure has left the run in the middle of them.
      const auto rest = taken_.begin() + static_cast<std::ptrdiff_t>(started_);
      queued_tasks_ += taken_.size() - started_;
      queue_.emplace_front(std::make_move_iterator(rest), std::make_move_iterator(taken_.end()));
    }
    more = !queue_.empty();
  }
  taken_.clear();
  started_ = 0;
  // What this run leaves, the next one serves.
  if (more) RunNow();
  Schedule::Execute();
}

TaskSchedule::Turn TaskSchedule::AwaitTurn(bool nap) {
  std::unique_lock lock(mutex_);
  std::optional<util::Clock::SystemTime> idle_end;
  std::uint64_t rechecks = rechecks_;
  for (;;) {
    ReportRefusals(lock);
    if (const std::optional<Turn> turn = NextTurn()) return *turn;
    if (policy_.idle && (!idle_end || rechecks != rechecks_)) idle_end = clock_.Now() + *policy_.idle;
    if (idle_end && *idle_end <= clock_.Now()) return Leave();
    rechecks = rechecks_;
    if (std::exchange(nap, false)) {
      Nap(lock);
    } else {
      Sleep(lock, idle_end);
    }
  }
}

std::optional<TaskSchedule::Turn> TaskSchedule::NextTurn() {
  if (MustLeave()) return Leave();
  if (!queue_.empty()) {
    TakeBlock();
    return Turn::RunTasks;
  }
  const auto work_time = WorkTime();
  if (work_time && *work_time <= clock_.Now()) return Turn::Work;
  return std::nullopt;
}

void TaskSchedule::TakeBlock() {
  taken_.clear();
  started_ = 0;
  if (spare_.capacity() == 0) spare_.swap(taken_);
  taken_.swap(queue_.front());
  queue_.pop_front();
  queued_tasks_ -= taken_.size();
}

void TaskSchedule::NoteCancel() {
  if (!IsCancelling()) return;
  if (policy_.accept_until_close) {
    // What was queued before the cancel still runs; what its callbacks queue does not, or a run might never end.
    if (!last_to_run_) last_to_run_ = last_number_;
  } else {
    // OnCancel, which is on its way then, needs the mutex: a run that stayed until it came would keep it. No task is
    // accepted any more: none can slip in behind a run that leaves.
    stop_requested_ = true;
  }
}

bool TaskSchedule::MustLeave() {
  NoteCancel();
  if (!policy_.accept_until_close) return stop_requested_ && queue_.empty();
  return last_to_run_ && (queue_.empty() || queue_.front().front().number > *last_to_run_);
}

TaskSchedule::Turn TaskSchedule::Leave() {
  serving_ = false;
  return Turn::Leave;
}

void TaskSchedule::Nap(std::unique_lock<std::mutex>& lock) {
  const std::uint64_t rechecks = rechecks_;
  napping_ = true;
  // By the machine's own clock: a nap is no time that a schedule keeps.
  wake_.wait_for(lock, policy_.nap,
                 [this, rechecks] { return hurry_ || stop_requested_ || IsCancelling() || rechecks_ != rechecks; });
  napping_ = false;
  hurry_ = false;
}

void TaskSchedule::Sleep(std::unique_lock<std::mutex>& lock, std::optional<util::Clock::SystemTime> until) {
  const std::uint64_t rechecks = rechecks_;
  lock.unlock();
  util::FreeKeptBlocks();
  lock.lock();
  util::Clock::SystemTime deadline = until.value_or(clock_.Now() + kFarAway);
  if (const auto work_time = WorkTime()) deadline = std::min(deadline, *work_time);
  if (refused_ != 0) deadline = std::min(deadline, next_warning_);
  clock_.WaitUntil(wake_, lock, deadline, [this, rechecks] {
    // Said anew before each sleep: a task that woke the run may have been taken back.
    asleep_ = queue_.empty() && !stop_requested_ && !IsCancelling() && rechecks_ == rechecks;
    return !asleep_;
  });
  asleep_ = false;
}

void TaskSchedule::OnCancel() {
  if (policy_.accept_until_close) {
    Recheck();
  } else {
    StopAccepting();
  }
}

void TaskSchedule::OnCancelled() {
  // There may have been no run to tell.
  if (!policy_.accept_until_close) StopAccepting();
  WakeCallers();
}

void TaskSchedule::StopAccepting() {
  {
    const std::lock_guard lock(mutex_);
    stop_requested_ = true;
  }
  wake_.notify_all();
}

void TaskSchedule::Recheck() {
  {
    const std::lock_guard lock(mutex_);
    ++rechecks_;
  }
  wake_.notify_all();
}

void TaskSchedule::WakeCallers() {
  { const std::lock_guard lock(mutex_); }
  answered_.notify_all();
}

bool TaskSchedule::CanRunTasks(const Scheduler& scheduler) const {
  return IsRunning() || (registered_ && scheduler.IsRunning());
}

void TaskSchedule::LogFailure(const std::exception& error) {
  ZLOG_ERROR("Failed to execute background task: " << error.what());
}

void TaskSchedule::ReportRefusals(std::unique_lock<std::mutex>& lock) {
  if (refused_ == 0) return;
  const util::Clock::SystemTime now = clock_.Now();
  if (now < next_warning_) return;
  const std::uint64_t refused = std::exchange(refused_, 0);
  next_warning_ = now + kWarningInterval;
  // A log that is slow, or waits for its disk, must not hold up whoever posts.
  lock.unlock();
  ZLOG_WARNING(policy_.owner << ": Refused " << refused << " operations: the task queue is full.");
  lock.lock();
}

}  // namespace zagent::common
