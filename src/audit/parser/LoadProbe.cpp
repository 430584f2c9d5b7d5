#include "src/audit/parser/LoadProbe.h"

#include <memory>

#include "common/src/tasks/ResourceMonitor.h"

namespace zagent::audit {

LoadProbe MakeLoadProbe(std::uint64_t cpu_limit, std::uint64_t memory_limit, common::util::Clock& clock) {
  // Shared only because a std::function must be copyable.
  const auto monitor = std::make_shared<common::ResourceMonitor>(cpu_limit, memory_limit, clock);
  return {[monitor] { return monitor->GetCpuUsagePercent(); }, monitor->GetTotalMemoryKb()};
}

}  // namespace zagent::audit
