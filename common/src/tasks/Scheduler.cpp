#include "common/src/tasks/Scheduler.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::common {
namespace {

constexpr std::chrono::seconds kLongestSleep{86'400};
// A schedule that could not be started (no thread to be had) stays due; without this pause it would keep the timer
// thread spinning, and without another try it would wait for somebody else's wake-up.
constexpr std::chrono::seconds kRetryAfterFailure{10};

std::vector<std::weak_ptr<Schedule>>::iterator Find(std::vector<std::weak_ptr<Schedule>>& schedules,
                                                    const std::shared_ptr<Schedule>& schedule) {
  return std::find_if(schedules.begin(), schedules.end(), [&schedule](const std::weak_ptr<Schedule>& entry) {
    return !entry.expired() && !entry.owner_before(schedule) && !schedule.owner_before(entry);
  });
}

}  // namespace

Scheduler::Scheduler(util::Clock& clock) : clock_(clock) {}

Scheduler::~Scheduler() {
  Stop();
  RemoveAllSchedules();
}

void Scheduler::Start() {
  ZLOG_INFO("Scheduler: Starting.");
  const std::lock_guard lock(mutex_);
  if (state_ != State::Stopped) {
    throw std::runtime_error("Start: Start cannot be called when the Scheduler is running");
  }
  state_ = State::Running;
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (...) {
    state_ = State::Stopped;
    throw;
  }
}

void Scheduler::Stop() {
  ZLOG_INFO("Scheduler: Stopping.");
  std::thread thread;
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Running) return;
    const std::lock_guard wake_lock(wake_up_->mutex);
    state_ = State::Stopping;
    thread = std::move(thread_);
  }
  wake_up_->condition.notify_all();
  thread.join();
  state_ = State::Stopped;
}

bool Scheduler::IsRunning() const {
  return state_ == State::Running;
}

void Scheduler::RegisterSchedule(const std::shared_ptr<Schedule>& schedule) {
  if (!schedule) throw std::runtime_error("RegisterSchedule: 'schedule' cannot be null");
  {
    const std::lock_guard lock(mutex_);
    if (Find(schedules_, schedule) != schedules_.end()) {
      throw std::runtime_error("RegisterSchedule: 'schedule' already exists");
    }
    schedules_.push_back(schedule);
  }
  schedule->OnRegistered();
  schedule->SetOnFinished([wake_up = wake_up_] { wake_up->Update(); });
  wake_up_->Update();
}

void Scheduler::UnregisterSchedule(const std::shared_ptr<Schedule>& schedule) {
  if (!schedule) throw std::runtime_error("UnregisterSchedule: 'schedule' cannot be null");
  {
    const std::lock_guard lock(mutex_);
    const auto entry = Find(schedules_, schedule);
    if (entry == schedules_.end()) throw std::runtime_error("UnregisterSchedule: 'schedule' is not registered");
    schedules_.erase(entry);
  }
  Detach(schedule);
}

void Scheduler::RemoveAllSchedules() {
  ZLOG_INFO("Scheduler: Removing all schedules.");
  std::vector<std::weak_ptr<Schedule>> removed;
  {
    const std::lock_guard lock(mutex_);
    removed.swap(schedules_);
  }
  for (const std::weak_ptr<Schedule>& entry : removed) {
    if (const std::shared_ptr<Schedule> schedule = entry.lock()) Detach(schedule);
  }
}

void Scheduler::OnClockStep(std::chrono::nanoseconds step) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(step).count();
  ZLOG_INFO("Scheduler: The system clock was stepped by " << seconds << " seconds.");
  ForEachSchedule([step](Schedule& schedule) { schedule.OnClockStep(step); });
  wake_up_->Update();
}

void Scheduler::Detach(const std::shared_ptr<Schedule>& schedule) {
  // Without a lock: a run that is being cancelled may itself call the Scheduler.
  schedule->Cancel();
  schedule->ClearOnFinished();
  schedule->OnUnregistered();
}

void Scheduler::WakeUp::Update() {
  ZLOG_TRACE("Scheduler: Schedule updated.");
  {
    const std::lock_guard lock(mutex);
    updated = true;
  }
  condition.notify_all();
}

void Scheduler::Run() {
  util::NameThisThread("edr-sched");
  while (state_ != State::Stopping) {
    const util::Clock::SystemTime wake = StartDueSchedules();
    std::unique_lock lock(wake_up_->mutex);
    clock_.WaitUntil(wake_up_->condition, lock, wake,
                     [this] { return state_ == State::Stopping || wake_up_->updated; });
  }
  ForEachSchedule([](Schedule& schedule) { schedule.Cancel(); });
}

util::Clock::SystemTime Scheduler::StartDueSchedules() {
  // A pointer locked here can be the last one, and the destructor of a schedule waits for its run: the pointers are
  // released after the lock.
  std::vector<std::shared_ptr<Schedule>> seen;
  const std::lock_guard lock(mutex_);
  wake_up_->updated = false;
  const util::Clock::SystemTime now = clock_.Now();
  util::Clock::SystemTime wake = now + kLongestSleep;
  for (auto entry = schedules_.begin(); entry != schedules_.end();) {
    const std::shared_ptr<Schedule>& schedule = seen.emplace_back(entry->lock());
    if (!schedule) {
      entry = schedules_.erase(entry);
      continue;
    }
    ++entry;
    try {
      std::int64_t next = 0;
      if (schedule->IsDue(clock_, &next)) {
        schedule->Start();
      } else if (!schedule->IsRunning()) {
        wake = std::min(wake, util::Clock::SystemTime(std::chrono::nanoseconds(next)));
      }
      // A schedule that runs adds nothing, or one whose next time has passed already would keep this thread spinning.
      // It wakes the Scheduler when it is idle again.
    } catch (const std::exception& error) {
      ZLOG_ERROR("Scheduler: Schedule exeution failed: " << error.what());
      wake = std::min(wake, now + kRetryAfterFailure);
    }
  }
  return wake;
}

void Scheduler::ForEachSchedule(const std::function<void(Schedule&)>& visit) {
  std::vector<std::weak_ptr<Schedule>> schedules;
  {
    const std::lock_guard lock(mutex_);
    schedules = schedules_;
  }
  for (const std::weak_ptr<Schedule>& entry : schedules) {
    if (const std::shared_ptr<Schedule> schedule = entry.lock()) visit(*schedule);
  }
}

}  // namespace zagent::common
