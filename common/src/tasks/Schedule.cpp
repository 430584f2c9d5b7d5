#include "common/src/tasks/Schedule.h"

#include <utility>

namespace zagent::common {

Schedule::Schedule() : AsyncTask({[this] { FireOnFinished(); }, [this] { OnCancelled(); }}) {}

Schedule::~Schedule() {
  Cancel();
}

void Schedule::Start() {
  const bool was_forced = forced_.exchange(false);
  try {
    AsyncTask::Start();
  } catch (...) {
    if (was_forced) forced_ = true;
    throw;
  }
}

bool Schedule::IsDue(const util::Clock& clock, std::int64_t* next_run_time) {
  const std::int64_t next = NextRunTime();
  if (next_run_time != nullptr) *next_run_time = next;
  const std::lock_guard lock(callback_mutex_);
  if (!forced_ && next > util::ToNanoseconds(clock.Now())) return false;
  return !IsRunning();
}

void Schedule::RunNow() {
  forced_ = true;
  FireOnFinished();
}

void Schedule::SetOnFinished(std::function<void()> callback) {
  // The old callback is destroyed after the lock is gone.
  const std::lock_guard lock(callback_mutex_);
  std::swap(on_finished_, callback);
}

void Schedule::ClearOnFinished() {
  SetOnFinished(nullptr);
}

void Schedule::Execute() {
  FireOnFinished();
}

void Schedule::FireOnFinished() {
  std::function<void()> callback;
  {
    const std::lock_guard lock(callback_mutex_);
    callback = on_finished_;
  }
  if (callback) callback();
}

}  // namespace zagent::common
