#include "common/src/tasks/PacedUsage.h"

#include <algorithm>

namespace zagent::common {
namespace {

// As often as the monitor looks.
constexpr std::chrono::milliseconds kLookInterval{1001};

}  // namespace

PacedUsage::PacedUsage(ResourceMonitor& monitor, util::Clock& clock)
    : monitor_(monitor), clock_(clock), limit_(static_cast<double>(monitor.GetCpuLimit())), last_(clock.SteadyNow()) {}

float PacedUsage::GetPercent() {
  const float usage = monitor_.GetCpuUsagePercent();
  const util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now - last_ < kLookInterval) return percent_;
  const double elapsed = std::chrono::duration<double>(now - last_).count();
  last_ = now;
  const double most = limit_ * std::chrono::duration<double>(kMostOwed).count();
  owed_ = std::clamp(owed_ + (usage - limit_) * elapsed, 0.0, most);
  owes_since_ = owed_ > 0 ? owes_since_ + elapsed : 0;
  percent_ = usage;
  if (owed_ > 0) percent_ = std::max(usage, static_cast<float>(limit_ + owed_ / owes_since_));
  return percent_;
}

}  // namespace zagent::common
