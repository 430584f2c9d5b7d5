#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/src/http/Uploader.h"
#include "common/src/tasks/RememberedTime.h"
#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"
#include "src/health/AHSSettings.h"
#include "src/health/HealthStore.h"

namespace zagent::health {

// What kind of rows an upload takes; the path of the upload follows from it.
enum class AHSRecordType { Edr };

// Sends the statuses to the platform, all in one document, and deletes what has arrived. The first run is due at once;
// from then on the end of the last run counts, whether it succeeded or not.
class AHSUploadSchedule final : public common::Schedule {
 public:
  // `store` outlives the schedule.
  AHSUploadSchedule(AHSSettings settings, HealthStore& store, std::unique_ptr<common::Uploader> uploader,
                    common::util::Clock& clock = common::util::Clock::Real(), AHSRecordType type = AHSRecordType::Edr);
  AHSUploadSchedule(const AHSUploadSchedule&) = delete;
  AHSUploadSchedule& operator=(const AHSUploadSchedule&) = delete;
  ~AHSUploadSchedule() override;

  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;

 protected:
  void Execute() override;
  void OnCancel() override;

 private:
  void UploadAll();
  [[nodiscard]] bool Send(const std::string& document);

  const AHSSettings settings_;
  HealthStore& store_;
  const std::unique_ptr<common::Uploader> uploader_;
  common::util::Clock& clock_;
  const AHSRecordType type_;
  common::RememberedTime last_run_;
};

}  // namespace zagent::health
