#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/storage/Storage.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/RememberedTime.h"
#include "common/src/tasks/Schedule.h"
#include "common/src/util/Clock.h"
#include "src/fim/Config.h"
#include "src/health/ComponentHealth.h"

namespace zagent::fim::internal {

// Sends the spool's files to the platform, oldest first, until the spool is empty or an upload fails. A file is deleted
// when the platform has accepted it, and at once when it is corrupt, so that it does not block those behind it.
//
// The first run is due at once. From then on the end of the last run counts, whether it succeeded or not: a failing
// upload waits its interval like any other. A run that would begin in the quiet hours of the module "FIM" waits for
// their end; one under way when they begin ends with the file that it is sending.
class UploadSchedule final : public common::Schedule {
 public:
  // Outcome of the last attempt: "httpStatus" and "correlationId".
  using Status = std::map<std::string, std::string>;

  // `config`, `storage`, `quiet_hours` (may be null) and `health` outlive the schedule; interval and URL are read from
  // `config` whenever they are needed.
  UploadSchedule(const Config& config, common::Storage& storage, std::unique_ptr<common::Uploader> uploader,
                 const common::BlackoutManager* quiet_hours, const health::ComponentHealth& health,
                 common::util::Clock& clock);
  UploadSchedule(const UploadSchedule&) = delete;
  UploadSchedule& operator=(const UploadSchedule&) = delete;
  ~UploadSchedule() override;

  // An interval of 0 is always a day away: no uploads until the configuration changes.
  [[nodiscard]] std::int64_t NextRunTime() override;
  void OnClockStep(std::chrono::nanoseconds step) override;
  // Makes the Scheduler ask for the next run again, after the interval has changed.
  void Reschedule();

  // Empty before the first attempt. From any thread.
  [[nodiscard]] Status GetStatus() const;

 protected:
  void Execute() override;
  void OnCancel() override;

 private:
  using File = std::unique_ptr<common::StorageResult>;

  void UploadAll();
  [[nodiscard]] bool IsQuiet() const;
  // The next file to send; null when there is none or none can be read.
  File ReadNext();
  // True when the file has been dealt with and the next one may come.
  bool UploadOne(File file);
  // The payload of a file; nothing when the file is corrupt.
  static common::Bytes ParseFile(File& file, const std::string& timestamp);
  bool DeleteCorrupt(File file);
  bool Send(const common::StorageResult& file, const common::Bytes& payload);

  const Config& config_;
  common::Storage& storage_;
  const std::unique_ptr<common::Uploader> uploader_;
  const common::BlackoutManager* const quiet_hours_;
  const health::ComponentHealth& health_;
  common::util::Clock& clock_;
  common::RememberedTime last_run_;
  mutable std::mutex status_mutex_;
  Status status_;
};

}  // namespace zagent::fim::internal
