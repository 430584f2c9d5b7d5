#include "common/src/tasks/AsyncTask.h"

#include <exception>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::common {

AsyncTask::~AsyncTask() {
  EndRun();
}

void AsyncTask::Start() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return state_ == State::Idle; });
  previous_thread_ = std::move(thread_);
  state_ = State::Running;
  ++runs_started_;
  try {
    thread_ = std::thread([this] { OnExecute(); });
  } catch (...) {
    thread_ = std::move(previous_thread_);
    --runs_started_;
    state_ = State::Idle;
    throw;
  }
}

void AsyncTask::Cancel() {
  EndRun();
  if (hooks_.cancelled) hooks_.cancelled();
}

void AsyncTask::EndRun() {
  {
    std::unique_lock lock(mutex_);
    if (state_ != State::Idle) {
      // Another run may start as soon as this one has ended: only this one's end is waited for.
      const std::uint64_t run = runs_started_;
      state_ = State::Cancelling;
      lock.unlock();
      OnCancel();
      lock.lock();
      idle_.wait(lock, [this, run] { return runs_ended_ >= run; });
    }
  }
  JoinFinishedThread();
}

void AsyncTask::JoinFinishedThread() {
  // Held over the join, so that a second caller does not return while the first still waits for the thread.
  const std::lock_guard join_lock(join_mutex_);
  std::thread finished;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Idle) finished = std::move(thread_);
  }
  if (finished.joinable()) finished.join();
}

void AsyncTask::OnExecute() {
  util::NameThisThread("edr-task");
  std::thread previous;
  {
    const std::lock_guard lock(mutex_);
    previous = std::move(previous_thread_);
  }
  if (previous.joinable()) previous.join();
  try {
    Execute();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AsyncTask::OnExecute: " << error.what());
  }
  {
    const std::lock_guard lock(mutex_);
    ++runs_ended_;
    state_ = State::Idle;
  }
  idle_.notify_all();
  if (hooks_.idle) hooks_.idle();
}

}  // namespace zagent::common
