#include "src/audit/routing/CloneCache.h"

#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {

void CloneCache::Add(std::unique_ptr<edr::Event> clone) {
  const std::int32_t pid = clone->GetActorProcessId();
  clones_.Put(pid, std::move(clone));
  ZLOG_DEBUG("Added Clone event Pid: " << pid << " to cache. Size = " << clones_.GetSize());
}

std::unique_ptr<edr::Event> CloneCache::Take(std::int32_t pid) {
  if (!clones_.Contains(pid)) {
    ZLOG_DEBUG("Process with pid " << pid << " does not exist in Clone Cache");
    return nullptr;
  }
  return clones_.Take(pid);
}

}  // namespace zagent::audit::internal
