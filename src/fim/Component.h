#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/storage/SpoolStorage.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Clock.h"
#include "common/src/util/DigestCache.h"
#include "common/src/util/Json.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/LibMagicWrapper.h"
#include "src/fim/Baseline.h"
#include "src/fim/ClearSpoolTask.h"
#include "src/fim/Config.h"
#include "src/fim/EventProcessor.h"
#include "src/fim/EventRuleManager.h"
#include "src/fim/RuleTable.h"
#include "src/fim/UploadSchedule.h"
#include "src/health/ComponentHealth.h"
#include "src/health/HealthReporter.h"

namespace zagent::fim {

// File integrity monitoring as the host sees it: the manifests' rules go to the rule engine, the events that come
// back go as JSON into a spool, and the spool goes to the platform.
//
// All operations belong to the host's control thread.
class Component {
 public:
  // What every component is given, in the order of all of them. The start time is the sensor's; the limits, in percent,
  // are the host's. The component itself paces nothing by them, and the magic is the events' own.
  //
  // The spool's folder is `event_file_path`; a relative one lies under "<base_directory>/fim/", a missing one is
  // created (mode 0700). The baseline's database always lies in "<base_directory>/fim/". `scheduler`, `engine`,
  // `health` and `clock` outlive the component.
  //
  // `quiet_hours` may be null: uploads keep to the intervals alone then. `digests` is the cache that the events have;
  // null: one of the component's own.
  //
  // Throws std::invalid_argument for a null `config` or `uploader`, and what a step throws: a folder, a spool or a
  // baseline database that cannot be made. Nothing stays behind then. A rule engine that cannot reach the kernel is
  // only logged.
  Component(std::chrono::system_clock::time_point start_time, std::unique_ptr<Config> config,
            const std::shared_ptr<edr::LibMagicWrapper>& lib_magic, common::Scheduler& scheduler,
            std::unique_ptr<common::Uploader> uploader, edr::EventRuleEngine& engine, std::uint64_t cpu_limit,
            std::uint64_t memory_limit, std::unique_ptr<const common::BlackoutManager> quiet_hours,
            health::HealthReporter& health, const std::string& base_directory,
            std::shared_ptr<common::util::DigestCache> digests = nullptr,
            common::util::Clock& clock = common::util::Clock::Real());
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
  // Waits for an upload and for an event under way. The spool's cache is written to disk.
  ~Component();

  // A new section "fim_config". Spool limits, upload interval and URL, and manifests take effect at once;
  // `event_file_path` and `event_file_name` with the next start. An unchanged section changes nothing.
  // Throws std::invalid_argument "Fim::Config::Update: Invalid json" and changes nothing.
  void UpdateConfig(const rapidjson::Value& json);

  // Memory that is kept by the spool's tasks, and by its cache and the baseline's paths.
  [[nodiscard]] std::uint64_t GetWaitingBytes() const { return storage_->GetWaitingBytes(); }
  [[nodiscard]] std::uint64_t GetCachedBytes() const { return storage_->GetCachedBytes() + baseline_->GetBytes(); }

 private:
  void UpdateEnabled();
  void ReportEnabled() const;
  void StartClearTask();
  void Unregister(const std::shared_ptr<common::Schedule>& schedule);

  // Destroyed from the last to the first: what writes into the storage goes before it.
  const std::unique_ptr<Config> config_;
  const std::unique_ptr<const common::BlackoutManager> quiet_hours_;
  common::Scheduler& scheduler_;
  common::util::Clock& clock_;
  const health::ComponentHealth health_;
  const std::shared_ptr<common::util::DigestCache> digests_;
  std::unique_ptr<internal::Baseline> baseline_;  // the storage tells it of its last file
  std::unique_ptr<common::SpoolStorage> storage_;
  internal::RuleTable rules_;
  std::unique_ptr<internal::EventProcessor> processor_;
  std::unique_ptr<internal::EventRuleManager> manager_;
  std::shared_ptr<internal::UploadSchedule> upload_schedule_;
  std::shared_ptr<internal::ClearSpoolTask> clear_task_;  // the Scheduler would not keep it alive
  bool enabled_ = false;                                  // the configuration has manifests
};

}  // namespace zagent::fim
