#include "common/src/tasks/ThreadedClass.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::common {
namespace {

// So that a deadline always lies within what a clock can hold.
std::chrono::milliseconds Millis(std::uint64_t count) {
  constexpr std::uint64_t kLongest = std::uint64_t{86'400} * 365 * 1000;
  return std::chrono::milliseconds(std::min(count, kLongest));
}

constexpr const char* kNoStdException = "no std::exception";

}  // namespace

ThreadedClass::ThreadedClass(std::string name, std::uint64_t cpu_limit, std::uint64_t memory_limit, util::Clock& clock,
                             const std::string& proc_root)
    : name_(std::move(name)), clock_(clock), monitor_(cpu_limit, memory_limit, clock, proc_root) {}

ThreadedClass::~ThreadedClass() {
  Stop();
}

void ThreadedClass::Start() {
  const std::lock_guard start_lock(start_mutex_);
  if (thread_.valid()) throw std::runtime_error("Start called for already running " + name_ + " instance");
  stopped_ = false;
  ZLOG_INFO("Starting " << name_ << " ...");
  try {
    OnStart();
    thread_ = std::async(std::launch::async, [this] { Run(); });
  } catch (...) {
    stopped_ = true;
    throw;
  }
}

void ThreadedClass::Stop() {
  // Held until the thread has ended, so that a Start in between does not let two of them run.
  const std::lock_guard start_lock(start_mutex_);
  if (stopped_) return;
  OnStop();
  ZLOG_INFO("Stopping " << name_ << " ...");
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  wake_.notify_all();
  EndThread();
}

void ThreadedClass::EndThread() {
  std::future<void> thread = std::move(thread_);
  try {
    thread.get();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Uncaught exception when stopping " << name_ << " : " << error.what());
  } catch (...) {
    ZLOG_ERROR("Uncaught exception when stopping " << name_ << " : " << kNoStdException);
  }
}

void ThreadedClass::Notify() {
  // Whoever waits has looked at its predicate before this, or sleeps already.
  { const std::lock_guard lock(mutex_); }
  wake_.notify_all();
}

void ThreadedClass::SetCpuCheck(CpuCheck mode, std::uint64_t pause_millis) {
  const std::lock_guard lock(mutex_);
  cpu_check_ = mode;
  cpu_pause_ = Millis(pause_millis);
}

void ThreadedClass::SetWait(std::uint64_t wait_millis, std::function<bool()> wake_predicate) {
  {
    const std::lock_guard lock(mutex_);
    wait_ = Millis(wait_millis);
    std::swap(wake_predicate_, wake_predicate);
  }
  wake_.notify_all();
  // The old predicate is destroyed without the lock.
}

void ThreadedClass::Run() {
  util::NameThisThread(thread_name_.c_str());
  // Said when it happens: the Stop that says it again may be days away.
  try {
    while (!stopped_) TakeTurn();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Uncaught exception ends " << name_ << " : " << error.what());
    throw;
  } catch (...) {
    ZLOG_ERROR("Uncaught exception ends " << name_ << " : " << kNoStdException);
    throw;
  }
}

void ThreadedClass::TakeTurn() {
  try {
    Execute();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Uncaught exception in " << name_ << " : " << error.what());
  }
  if (Wait()) CpuPause();
}

// False when the class was stopped.
bool ThreadedClass::Wait() {
  std::unique_lock lock(mutex_);
  const auto awake = [this] { return stopped_ || (wake_predicate_ && wake_predicate_()); };
  if (wait_.count() == 0) {
    wake_.wait(lock, awake);
  } else {
    clock_.WaitFor(wake_, lock, wait_, awake);
  }
  return !stopped_;
}

void ThreadedClass::CpuPause() {
  std::unique_lock lock(mutex_);
  if (cpu_check_ == CpuCheck::None) return;
  const auto threshold = static_cast<float>(monitor_.GetCpuLimit());
  const auto pause = [&] { clock_.WaitFor(wake_, lock, cpu_pause_, [this] { return stopped_.load(); }); };
  if (cpu_check_ == CpuCheck::PauseOnce) {
    if (monitor_.GetCpuUsagePercent() > threshold) pause();
    return;
  }
  for (float usage = monitor_.GetCpuUsagePercent(); !stopped_ && usage > threshold;
       usage = monitor_.GetCpuUsagePercent()) {
    ZLOG_DEBUG("Pausing " << name_ << "as cpu usage (" << usage << ") is higher than configured threshold ("
                          << threshold << ")");
    pause();
  }
}

}  // namespace zagent::common
