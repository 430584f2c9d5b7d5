#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::audit {

// Looks once a second at the paths of rules, as long as there are any. RunNow when there are some: it does not find out
// by itself.
class WatchedPathSchedule final : public common::Schedule {
 public:
  // `has_paths` is called with the Scheduler's lock held: it returns at once.
  WatchedPathSchedule(std::function<bool()> has_paths, std::function<void()> look,
                      common::util::Clock& clock = common::util::Clock::Real());
  WatchedPathSchedule(const WatchedPathSchedule&) = delete;
  WatchedPathSchedule& operator=(const WatchedPathSchedule&) = delete;
  ~WatchedPathSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;

 protected:
  void Execute() override;

 private:
  const std::function<bool()> has_paths_;
  const std::function<void()> look_;
  common::util::Clock& clock_;
  std::atomic<std::int64_t> last_run_;  // nanoseconds since the epoch
};

}  // namespace zagent::audit
