#pragma once

#include <cstdint>
#include <functional>

#include "common/src/util/Clock.h"

namespace zagent::common {

// What a thread asks to pace itself. Each thread owns one and asks it from itself only.
struct LoadProbe {
  // Percent of all processors that this process uses, by which the thread pauses. What it throws ends the thread.
  std::function<float()> cpu_usage_percent;
  // Percent of the machine's memory that this process holds; 0 within its first minute. Throws like the other.
  std::function<float()> memory_usage_percent;
  std::uint64_t total_memory_kb = 0;
};

// A probe of this process on a ResourceMonitor of its own, whose CPU use is a PacedUsage; throws as its constructor
// does. Limits in percent.
LoadProbe MakeLoadProbe(std::uint64_t cpu_limit, std::uint64_t memory_limit, util::Clock& clock);

}  // namespace zagent::common
