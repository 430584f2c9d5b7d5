#pragma once

#include <chrono>
#include <optional>

#include "common/src/util/Clock.h"

namespace zagent::common {

// Notices when somebody sets the system clock, by comparing it with the steady one. Asked about once a second by one
// thread; what it finds goes to Scheduler::OnClockStep.
//
//   if (const auto step = watch.Check()) scheduler.OnClockStep(*step);
//
// A clock that is slewed stays below the threshold between two looks and is no step. A machine that was suspended is
// one: the steady clock stands still meanwhile.
class ClockStepWatch {
 public:
  static constexpr std::chrono::seconds kThreshold{5};

  explicit ClockStepWatch(util::Clock& clock = util::Clock::Real());

  // By how much the system clock was stepped since the last look, when that is more than the threshold; negative when
  // it was set back.
  std::optional<std::chrono::nanoseconds> Check();

 private:
  [[nodiscard]] std::chrono::nanoseconds Distance() const;

  util::Clock& clock_;
  std::chrono::nanoseconds last_distance_;  // of the two clocks' readings
};

}  // namespace zagent::common
