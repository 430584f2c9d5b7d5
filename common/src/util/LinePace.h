#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "common/src/util/Clock.h"

namespace zagent::common::util {

// Lets one line a minute into the log of what may happen any number of times, and counts what it stands for:
//
//   if (const std::uint64_t times = pace.Take()) ZLOG_ERROR("Failed to write" << LinePace::Times(times));
//
// Any thread.
class LinePace {
 public:
  static constexpr std::chrono::minutes kInterval{1};

  // `clock` outlives it.
  explicit LinePace(const Clock& clock) : clock_(clock) {}

  // Once for each time that it happens. 0 when no line is due; else how often it has happened since the last line.
  [[nodiscard]] std::uint64_t Take() {
    const std::lock_guard lock(mutex_);
    ++times_;
    const Clock::SteadyTime now = clock_.SteadyNow();
    if (told_ && now < *told_ + kInterval) return 0;
    told_ = now;
    return std::exchange(times_, 0);
  }

  // " (12 times since the last line)"; empty for once.
  [[nodiscard]] static std::string Times(std::uint64_t times) {
    return times > 1 ? " (" + std::to_string(times) + " times since the last line)" : "";
  }

 private:
  const Clock& clock_;
  std::mutex mutex_;
  std::uint64_t times_ = 0;
  std::optional<Clock::SteadyTime> told_;
};

}  // namespace zagent::common::util
