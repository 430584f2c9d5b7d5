#include "src/audit/engine/WatchedPathSchedule.h"

#include <chrono>
#include <exception>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::audit {
namespace {

constexpr std::chrono::seconds kBetweenLooks{1};
constexpr std::chrono::hours kUntilToldSo{24};

}  // namespace

WatchedPathSchedule::WatchedPathSchedule(std::function<bool()> has_paths, std::function<void()> look,
                                         common::util::Clock& clock)
    : has_paths_(std::move(has_paths)), look_(std::move(look)), clock_(clock) {}

WatchedPathSchedule::~WatchedPathSchedule() {
  Cancel();
}

std::int64_t WatchedPathSchedule::NextRunTime() {
  const auto now = clock_.Now();
  return common::util::ToNanoseconds(has_paths_() ? now : now + kUntilToldSo);
}

void WatchedPathSchedule::Execute() {
  common::util::NameThisThread("edr-paths");
  std::unique_lock lock(mutex_);
  while (!IsCancelling() && has_paths_()) {
    lock.unlock();
    try {
      look_();
    } catch (const std::exception& error) {
      ZLOG_ERROR("Failed to look at the paths of rules: " << error.what());
    }
    lock.lock();
    clock_.WaitFor(cancelled_, lock, kBetweenLooks, [this] { return IsCancelling(); });
  }
  // The Scheduler is woken when this is idle; to be woken here, too, would tell it nothing.
}

void WatchedPathSchedule::OnCancel() {
  { const std::lock_guard lock(mutex_); }  // who has seen that nobody cancels waits by now
  cancelled_.notify_all();
}

}  // namespace zagent::audit
