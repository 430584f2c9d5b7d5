#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/storage/Storage.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/RememberedTime.h"
#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"
#include "src/health/ComponentHealth.h"
#include "src/ioc/config/Config.h"

namespace zagent::ioc::internal {

// Sends the spool's files to the platform as they are, oldest first, at most three in a run; a run ends early when the
// spool is empty or an upload fails. A file is deleted when the platform has accepted it.
//
// The first run is due at once. From then on the end of the last run counts, whether it succeeded or not. A run that
// would begin in the quiet hours of the module "IOC" waits for their end; one under way when they begin ends with the
// file that it is sending.
class UploadSchedule final : public common::Schedule {
 public:
  static constexpr int kFilesPerRun = 3;

  // `config`, `storage`, `quiet_hours` (may be null) and `health` outlive the schedule. An empty gateway prefix:
  // uploads go to the common service URL.
  UploadSchedule(const Config& config, common::Storage& storage, std::string gateway_url_prefix,
                 std::unique_ptr<common::Uploader> uploader, const common::BlackoutManager* quiet_hours,
                 const health::ComponentHealth& health, common::util::Clock& clock);
  UploadSchedule(const UploadSchedule&) = delete;
  UploadSchedule& operator=(const UploadSchedule&) = delete;
  ~UploadSchedule() override;

  // From the next upload on. From any thread.
  void SetGatewayUrlPrefix(const std::string& prefix);

  // With an interval of 0 there is one run a day, the first a day after the start.
  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;
  // Makes the Scheduler ask for the next run again, after the interval has changed.
  void Reschedule();

 protected:
  void Execute() override;
  void OnCancel() override;

 private:
  using File = std::unique_ptr<common::StorageResult>;

  [[nodiscard]] std::optional<std::int64_t> NextDueTime() const;
  void UploadSome();
  [[nodiscard]] bool IsQuiet() const;
  // The next file to send; null when there is none or none can be read.
  File ReadNext();
  // True when the file has been dealt with and the next one may come.
  bool UploadOne(File file);
  // What becomes of a file, by the uploader's outcome.
  bool OnUploaded(File file, std::int32_t outcome);
  [[nodiscard]] std::string GetUrl() const;

  const Config& config_;
  common::Storage& storage_;
  const std::unique_ptr<common::Uploader> uploader_;
  const common::BlackoutManager* const quiet_hours_;
  const health::ComponentHealth& health_;
  common::util::Clock& clock_;
  common::RememberedTime last_run_;
  common::RememberedTime built_;
  mutable std::mutex prefix_mutex_;
  std::string gateway_url_prefix_;
};

}  // namespace zagent::ioc::internal
