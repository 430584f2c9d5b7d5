#pragma once

#include <cstdint>
#include <functional>

#include "common/src/util/Clock.h"

namespace zagent::audit {

// What a stage of the intake asks to pace itself. Each stage owns one and asks it from its own thread only.
struct LoadProbe {
  // Percent of all processors that this process uses. What it throws ends the stage.
  std::function<float()> cpu_usage_percent;
  std::uint64_t total_memory_kb = 0;
};

// A probe of this process on a ResourceMonitor of its own; throws as its constructor does. Limits in percent.
LoadProbe MakeLoadProbe(std::uint64_t cpu_limit, std::uint64_t memory_limit, common::util::Clock& clock);

}  // namespace zagent::audit
