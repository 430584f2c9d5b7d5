#pragma once

#include <chrono>

#include "common/src/util/Clock.h"
#include "src/audit/events/IntakeCounters.h"

namespace zagent::edr::host {

// Tells the log what the intake has lost since the start: one Information line every ten minutes when it was more than
// the last line said, and one at the end. One thread.
class IntakeReport {
 public:
  static constexpr std::chrono::minutes kInterval{10};

  explicit IntakeReport(const audit::IntakeCounters& counters,
                        common::util::Clock& clock = common::util::Clock::Real());

  // Made to be called often: asks the clock first.
  void TellWhenDue();
  // Also when nothing was lost.
  void TellAtEnd() const;

 private:
  const audit::IntakeCounters& counters_;
  common::util::Clock& clock_;
  common::util::Clock::SteadyTime next_;
  audit::IntakeCounters::Snapshot told_{};
};

}  // namespace zagent::edr::host
