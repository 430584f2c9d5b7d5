#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

#include "common/src/util/Clock.h"

namespace zagent::common {

// A time of the wall clock that a schedule remembers while somebody may set that clock: what a run notes and what
// Schedule::OnClockStep moves never mix, in whatever order they come. All operations from any thread.
class RememberedTime {
 public:
  explicit RememberedTime(util::Clock& clock) : clock_(clock) {}
  RememberedTime(const RememberedTime&) = delete;
  RememberedTime& operator=(const RememberedTime&) = delete;
  ~RememberedTime() = default;

  // `ahead` from now.
  void Set(std::chrono::nanoseconds ahead = std::chrono::nanoseconds::zero());

  // The wall clock was stepped: moves by as much, but not beyond what it was set ahead from now, because it may have
  // been set after the step. Nothing when it was never set.
  void Move(std::chrono::nanoseconds step);

  // Nanoseconds since the epoch; nothing before the first Set.
  [[nodiscard]] std::optional<std::int64_t> Get() const;

 private:
  util::Clock& clock_;
  mutable std::mutex mutex_;
  std::optional<std::int64_t> time_;
  std::int64_t ahead_ = 0;  // nanoseconds, of the last Set
};

}  // namespace zagent::common
