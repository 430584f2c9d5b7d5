#include "src/fim/ClearSpoolTask.h"

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {

void ClearSpool(common::Storage& storage) {
  storage.ClearAsync([](bool cleared) {
    if (cleared) {
      ZLOG_INFO("Successfully cleared spool storage");
    } else {
      ZLOG_ERROR("Failed to clear spool storage");
    }
  });
}

std::int64_t ClearSpoolTask::NextRunTime() {
  constexpr std::chrono::hours kFarAway{24 * 365};
  return common::util::ToNanoseconds(clock_.Now() + (done_ ? kFarAway : std::chrono::hours(0)));
}

void ClearSpoolTask::Execute() {
  done_ = true;
  ClearSpool(storage_);
  Schedule::Execute();
}

}  // namespace zagent::fim::internal
