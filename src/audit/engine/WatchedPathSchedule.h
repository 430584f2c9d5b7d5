#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::audit {

// Looks once a second at the paths of rules, as long as there are any. RunNow when there are some: it does not find out
// by itself.
//
// One run lasts as long as there are paths: a thread each second, and the Scheduler woken at its end, would cost more
// than the look. Seconds are steady ones, so that it is nothing to this schedule when the system clock is set.
class WatchedPathSchedule final : public common::Schedule {
 public:
  // `has_paths` is called with the Scheduler's lock held: it returns at once. What `look` throws is logged, and the
  // next look comes in its time.
  WatchedPathSchedule(std::function<bool()> has_paths, std::function<void()> look,
                      common::util::Clock& clock = common::util::Clock::Real());
  WatchedPathSchedule(const WatchedPathSchedule&) = delete;
  WatchedPathSchedule& operator=(const WatchedPathSchedule&) = delete;
  ~WatchedPathSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override;

 protected:
  void Execute() override;
  void OnCancel() override;

 private:
  const std::function<bool()> has_paths_;
  const std::function<void()> look_;
  common::util::Clock& clock_;
  std::mutex mutex_;
  std::condition_variable cancelled_;
};

}  // namespace zagent::audit
