#pragma once

#include <memory>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/tasks/Scheduler.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/edr/host/HealthIntake.h"
#include "src/health/AHSSettings.h"
#include "src/health/AHSUploadSchedule.h"
#include "src/health/HealthStore.h"

namespace zagent::edr::host {

// What the host has of health: the store that everybody reports to, its upload, and what the host itself reports.
class HealthService {
 public:
  // The database lies in `directory`. The others outlive this object.
  HealthService(health::AHSSettings settings, const std::string& directory, std::unique_ptr<common::Uploader> uploader,
                common::Scheduler& scheduler, const audit::IntakeCounters& counters, audit::AuditNetlink& netlink);
  HealthService(const HealthService&) = delete;
  HealthService& operator=(const HealthService&) = delete;
  ~HealthService();

  [[nodiscard]] health::HealthReporter& Reporter() { return store_; }

  // From now on what is reported is sent. Once, when everybody who reports at the start has done so.
  void StartUploads();
  // Made to be called often, by the main thread.
  void TellWhenDue() { intake_.TellWhenDue(); }
  [[nodiscard]] std::uint64_t GetWaitingBytes() const { return store_.GetWaitingBytes(); }
  // What the host reports of the intake; main thread.
  [[nodiscard]] HealthIntake& Intake() { return intake_; }
  // When the intake and the components have ended: what is still to be told stays for the next start.
  void Stop();

 private:
  common::Scheduler& scheduler_;
  health::HealthStore store_;
  HealthIntake intake_;
  std::shared_ptr<health::AHSUploadSchedule> uploads_;
  bool is_registered_ = false;
};

}  // namespace zagent::edr::host
