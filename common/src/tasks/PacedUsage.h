#pragma once

#include <chrono>

#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// The CPU use of this process for a thread that pauses while it is above the limit. A pause of a second ends every
// reading that was too high, and the next second may be as busy as the last: that is half the processor, whatever the
// limit is. So what was used beyond the limit is owed, and the reading stays above the limit until it is paid back by
// using less. What is owed never takes longer than a minute of rest.
//
// One thread.
class PacedUsage {
 public:
  static constexpr std::chrono::seconds kMostOwed{60};

  // The limit is the monitor's.
  PacedUsage(ResourceMonitor& monitor, util::Clock& clock);

  // ResourceMonitor::GetCpuUsagePercent or, while something is owed, the mean since then if that is more. Throws like
  // the monitor.
  float GetPercent();

 private:
  ResourceMonitor& monitor_;
  util::Clock& clock_;
  const double limit_;
  util::Clock::SteadyTime last_;
  double owed_ = 0;        // percent times seconds
  double owes_since_ = 0;  // seconds; 0 when nothing is owed
  float percent_ = 0;
};

}  // namespace zagent::common
