#include "src/edr/host/IntakeReport.h"

#include <string>

#include "common/src/util/Log.h"

namespace zagent::edr::host {

using audit::IntakeCounters;

IntakeReport::IntakeReport(const IntakeCounters& counters, common::util::Clock& clock)
    : counters_(counters), clock_(clock), next_(clock.SteadyNow() + kInterval) {}

void IntakeReport::TellWhenDue() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now < next_) return;
  next_ = now + kInterval;
  const IntakeCounters::Snapshot counts = counters_.Take();
  if (counts == told_) return;
  told_ = counts;
  ZLOG_INFO("Intake losses since the start: " << IntakeCounters::Describe(counts));
}

void IntakeReport::TellAtEnd() const {
  const std::string losses = IntakeCounters::Describe(counters_.Take());
  ZLOG_INFO("Intake losses since the start: " << (losses.empty() ? "none" : losses));
}

}  // namespace zagent::edr::host
