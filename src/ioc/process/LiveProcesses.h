#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "src/ioc/process/ProcessInfo.h"

namespace zagent::ioc::internal {

// What procfs tells of the processes that are alive now. One thread.
class LiveProcesses {
 public:
  LiveProcesses(common::util::Clock& clock, std::string proc_root) : clock_(clock), proc_root_(std::move(proc_root)) {}

  // When the kernel made the process, in ns since the boot; nothing when it is gone, or when nobody can be asked.
  [[nodiscard]] std::optional<std::int64_t> FindStart(std::int32_t pid) const;
  // The same moment in ns since the epoch; nothing when the machine does not say when it was started.
  [[nodiscard]] std::optional<std::int64_t> ToEpoch(std::int64_t start_since_boot);
  // The next question looks at the clock anew: it may have been set a moment ago.
  void ForgetBootTime() { boot_time_.reset(); }
  // Whether procfs says that there is no such process; false when it cannot be asked.
  [[nodiscard]] bool IsGone(std::int32_t pid) const;
  // Two readings of the start of one process differ by less than two seconds: the boot is known in whole seconds.
  [[nodiscard]] static bool IsSameStart(std::int64_t stored, std::int64_t live);

  // The start of who has the pid now, if he was there at `time` (ns since the epoch, in whole seconds) already.
  [[nodiscard]] std::optional<std::int64_t> FindStartBefore(std::int32_t pid, std::int64_t time);
  // The process as it is now, if it was there at `time` already; null when not.
  [[nodiscard]] std::shared_ptr<ProcessInfo> Find(std::int32_t pid, std::int64_t time,
                                                  const ProcessInfo::OnCacheFull& on_cache_full) const;

 private:
  common::util::Clock& clock_;
  const std::string proc_root_;
  std::optional<std::int64_t> boot_time_;  // seconds since the epoch
  common::util::Clock::SteadyTime boot_time_known_until_;
};

}  // namespace zagent::ioc::internal
