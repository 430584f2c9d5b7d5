#include "src/audit/engine/WatchedPathSchedule.h"

#include <algorithm>
#include <utility>

namespace zagent::audit {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86'400 * kSecond;

}  // namespace

WatchedPathSchedule::WatchedPathSchedule(std::function<bool()> has_paths, std::function<void()> look,
                                         common::util::Clock& clock)
    : has_paths_(std::move(has_paths)),
      look_(std::move(look)),
      clock_(clock),
      last_run_(common::util::ToNanoseconds(clock.Now())) {}

WatchedPathSchedule::~WatchedPathSchedule() {
  Cancel();
}

std::int64_t WatchedPathSchedule::NextRunTime() {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  return has_paths_() ? std::max(now, last_run_ + kSecond) : now + kDay;
}

void WatchedPathSchedule::OnClockStep(std::chrono::nanoseconds step) {
  last_run_ = std::min(last_run_ + step.count(), common::util::ToNanoseconds(clock_.Now()));
}

void WatchedPathSchedule::Execute() {
  look_();
  last_run_ = common::util::ToNanoseconds(clock_.Now());
  // Once a second the Scheduler is woken when this is idle; to be woken here, too, would tell it nothing.
}

}  // namespace zagent::audit
