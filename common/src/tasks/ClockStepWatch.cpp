#include "common/src/tasks/ClockStepWatch.h"

namespace zagent::common {

ClockStepWatch::ClockStepWatch(util::Clock& clock) : clock_(clock), last_distance_(Distance()) {}

std::optional<std::chrono::nanoseconds> ClockStepWatch::Check() {
  const std::chrono::nanoseconds distance = Distance();
  const std::chrono::nanoseconds step = distance - last_distance_;
  last_distance_ = distance;
  if (std::chrono::abs(step) <= kThreshold) return std::nullopt;
  return step;
}

std::chrono::nanoseconds ClockStepWatch::Distance() const {
  return clock_.Now().time_since_epoch() - clock_.SteadyNow().time_since_epoch();
}

}  // namespace zagent::common
