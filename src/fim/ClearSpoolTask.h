#pragma once

#include <atomic>

#include "common/src/storage/Storage.h"
#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"

namespace zagent::fim::internal {

// Asks the storage to forget everything, and logs how that ended. Returns at once.
void ClearSpool(common::Storage& storage);

// Runs ClearSpool once, as soon as it is registered.
class ClearSpoolTask final : public common::Schedule {
 public:
  ClearSpoolTask(common::Storage& storage, common::util::Clock& clock) : storage_(storage), clock_(clock) {}
  ClearSpoolTask(const ClearSpoolTask&) = delete;
  ClearSpoolTask& operator=(const ClearSpoolTask&) = delete;
  ~ClearSpoolTask() override { Cancel(); }

  [[nodiscard]] std::int64_t NextRunTime() override;

 protected:
  void Execute() override;

 private:
  common::Storage& storage_;
  common::util::Clock& clock_;
  std::atomic<bool> done_{false};
};

}  // namespace zagent::fim::internal
