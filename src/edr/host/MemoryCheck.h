#pragma once

#include <cstdint>
#include <functional>

#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/util/Clock.h"
#include "src/edr/host/ExitFlag.h"

namespace zagent::edr::host {

// Holds the process to its memory: every three minutes it gives freed memory back to the system and looks at what is
// resident. The third look above the hard limit, with none below the soft limit in between, is one too many: then the
// host ends in order, and a restart is left to the parent agent. Called from the main loop; one thread.
class MemoryCheck {
 public:
  static constexpr std::uint32_t kMaxStrikes = 3;

  struct Limits {
    std::uint64_t soft_kb;
    std::uint64_t hard_kb;
    bool operator==(const Limits&) const = default;
  };
  // The soft limit is the allowed share of the machine's memory, between 400 MiB and 2 GiB; the hard one is half as
  // much again. `memory_limit` in percent.
  static Limits LimitsFor(std::uint64_t memory_limit, std::uint64_t total_memory_kb);

  // As common::util::TrimHeap: 1 when memory went back to the system.
  using Trim = std::function<int()>;

  // `monitor` carries the memory limit, and the root of procfs whose smaps is summed.
  explicit MemoryCheck(common::ResourceMonitor monitor, common::util::Clock& clock = common::util::Clock::Real());
  MemoryCheck(common::ResourceMonitor monitor, common::util::Clock& clock, Trim trim);

  // True when the strikes are full. Does nothing else before three minutes have passed since the last look: made to be
  // called once a second. Throws ResourceMonitorException.
  bool Run();

  // Run, and raises the flag, with a Debug line, when the strikes are full.
  void RunFor(ExitFlag& exit_flag);

  [[nodiscard]] Limits GetLimits() const { return limits_; }

 private:
  std::uint64_t MeasureKb();

  common::ResourceMonitor monitor_;
  common::util::Clock& clock_;
  Trim trim_;
  Limits limits_;
  common::util::Clock::SteadyTime last_;
  std::uint32_t strikes_ = 0;
};

}  // namespace zagent::edr::host
