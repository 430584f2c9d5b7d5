#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::audit {

// Looks once a second for paths that rules wait for, as long as there are any. RunNow when there are some: it does not
// find out by itself.
class MissingPathSchedule final : public common::Schedule {
 public:
  // `is_looking` is called with the Scheduler's lock held: it returns at once.
  MissingPathSchedule(std::function<bool()> is_looking, std::function<void()> look,
                      common::util::Clock& clock = common::util::Clock::Real());
  MissingPathSchedule(const MissingPathSchedule&) = delete;
  MissingPathSchedule& operator=(const MissingPathSchedule&) = delete;
  ~MissingPathSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;

 protected:
  void Execute() override;

 private:
  const std::function<bool()> is_looking_;
  const std::function<void()> look_;
  common::util::Clock& clock_;
  std::atomic<std::int64_t> last_run_;  // nanoseconds since the epoch
};

}  // namespace zagent::audit
