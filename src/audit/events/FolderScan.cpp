#include "src/audit/events/FolderScan.h"

#include <time.h>

#include <exception>
#include <system_error>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::audit::internal {
namespace {

using common::util::Clock;
using std::chrono::nanoseconds;

constexpr int kTimeForUse = 20;  // elapsed time for each unit of processor time: 5 percent
// Shorter rests are saved up.
constexpr nanoseconds kShortestRest = std::chrono::milliseconds(2);
// Nothing happens then; the wait only wants an end.
constexpr std::chrono::hours kIdleWait{24};

}  // namespace

FolderScan::FolderScan(FolderIdentities& identities, MountTable& mounts, Clock& clock, CpuTime cpu_time)
    : identities_(identities), walk_(identities, mounts), clock_(clock), cpu_time_(std::move(cpu_time)) {}

void FolderScan::Start() {
  if (thread_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
  }
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    ZLOG_ERROR("Failed to start looking for the folders below the watched paths: " << error.what());
  }
}

void FolderScan::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void FolderScan::Watch(std::vector<WatchedFolder> folders) {
  {
    const std::lock_guard lock(mutex_);
    wanted_ = std::move(folders);
  }
  changed_.notify_all();
}

void FolderScan::StartAgain() {
  {
    const std::lock_guard lock(mutex_);
    is_outdated_ = true;
  }
  changed_.notify_all();
}

nanoseconds FolderScan::OfThisThread() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

void FolderScan::Run() {
  common::util::NameThisThread("edr-folders");
  while (AwaitWanted()) {
    try {
      Fill();
    } catch (const std::exception& error) {
      ZLOG_ERROR("Failed to look for the folders below the watched paths: " << error.what());
    }
  }
}

bool FolderScan::AwaitWanted() {
  std::unique_lock lock(mutex_);
  const auto is_due = [this] { return stopping_ || is_outdated_ || wanted_.has_value(); };
  while (!is_due()) clock_.WaitFor(changed_, lock, kIdleWait, is_due);
  return !stopping_;
}

void FolderScan::TakeWanted() {
  std::optional<std::vector<WatchedFolder>> wanted;
  bool is_outdated = false;
  {
    const std::lock_guard lock(mutex_);
    wanted.swap(wanted_);
    is_outdated = std::exchange(is_outdated_, false);
  }
  if (is_outdated) walk_.StartAgain();
  if (wanted) walk_.Watch(std::move(*wanted));
}

void FolderScan::Fill() {
  const Clock::SteadyTime begin = clock_.SteadyNow();
  const nanoseconds used_before = cpu_time_();
  bool is_left = true;
  while (is_left) {
    TakeWanted();
    is_left = walk_.Step();
    Rest(begin, cpu_time_() - used_before);
    const std::lock_guard lock(mutex_);
    if (stopping_) return;
  }
  ZLOG_DEBUG("Folders known below the watched paths: " << identities_.Size());
}

void FolderScan::Rest(Clock::SteadyTime begin, nanoseconds used) {
  const nanoseconds rest = begin + used * kTimeForUse - clock_.SteadyNow();
  if (rest < kShortestRest) return;
  std::unique_lock lock(mutex_);
  clock_.WaitFor(changed_, lock, rest, [this] { return stopping_; });
}

}  // namespace zagent::audit::internal
