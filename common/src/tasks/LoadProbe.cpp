#include "common/src/tasks/LoadProbe.h"

#include <memory>

#include "common/src/tasks/PacedUsage.h"
#include "common/src/tasks/ResourceMonitor.h"

namespace zagent::common {

LoadProbe MakeLoadProbe(std::uint64_t cpu_limit, std::uint64_t memory_limit, util::Clock& clock) {
  // Shared only because a std::function must be copyable.
  const auto monitor = std::make_shared<ResourceMonitor>(cpu_limit, memory_limit, clock);
  const auto usage = std::make_shared<PacedUsage>(*monitor, clock);
  return {[monitor, usage] { return usage->GetPercent(); }, [monitor] { return monitor->GetMemoryUsagePercent(); },
          monitor->GetTotalMemoryKb()};
}

}  // namespace zagent::common
