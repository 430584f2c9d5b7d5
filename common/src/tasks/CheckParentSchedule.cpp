#include "common/src/tasks/CheckParentSchedule.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t kLongestIntervalSeconds = 86'400;

}  // namespace

CheckParentSchedule::CheckParentSchedule(std::function<void()> on_parent_gone, std::uint64_t interval_seconds,
                                         util::Clock& clock, std::function<pid_t()> parent)
    : on_parent_gone_(std::move(on_parent_gone)),
      interval_(static_cast<std::int64_t>(std::min(interval_seconds, kLongestIntervalSeconds)) * kNanosecondsPerSecond),
      clock_(clock),
      parent_(std::move(parent)),
      last_run_(clock) {
  last_run_.Set();
}

CheckParentSchedule::~CheckParentSchedule() {
  Cancel();
}

std::int64_t CheckParentSchedule::NextRunTime() {
  return std::max(util::ToNanoseconds(clock_.Now()), *last_run_.Get() + interval_);
}

void CheckParentSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_.Move(step);
}

void CheckParentSchedule::Execute() {
  if (parent_() == 1) {
    ZLOG_ERROR("CheckParent failed. Terminating...");
    if (on_parent_gone_) on_parent_gone_();
  }
  last_run_.Set();
  Schedule::Execute();
}

}  // namespace zagent::common
