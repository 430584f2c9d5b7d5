#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>

#include "common/src/tasks/RememberedTime.h"
#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// Looks at intervals whether the parent process still lives: an orphan's parent is process 1.
//
// Not for a process that has made itself a daemon: its parent is process 1, or a subreaper, from the start.
class CheckParentSchedule final : public Schedule {
 public:
  // `on_parent_gone` (may be empty) is called on the run's thread, at every check that finds no parent. `parent`
  // answers with the id of the parent process.
  CheckParentSchedule(std::function<void()> on_parent_gone, std::uint64_t interval_seconds,
                      util::Clock& clock = util::Clock::Real(), std::function<pid_t()> parent = getppid);
  CheckParentSchedule(const CheckParentSchedule&) = delete;
  CheckParentSchedule& operator=(const CheckParentSchedule&) = delete;
  ~CheckParentSchedule() override;

  // The later of the present time and one interval after the last check.
  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;

 protected:
  void Execute() override;

 private:
  const std::function<void()> on_parent_gone_;
  const std::int64_t interval_;  // nanoseconds
  util::Clock& clock_;
  const std::function<pid_t()> parent_;
  RememberedTime last_run_;  // set from the constructor on
};

}  // namespace zagent::common
