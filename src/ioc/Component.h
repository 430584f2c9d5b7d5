#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/storage/SpoolStorage.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Clock.h"
#include "common/src/util/DigestCache.h"
#include "common/src/util/Json.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/LibMagicWrapper.h"
#include "src/health/ComponentHealth.h"
#include "src/health/HealthReporter.h"
#include "src/ioc/EventProcessor.h"
#include "src/ioc/ProcessingThread.h"
#include "src/ioc/UploadSchedule.h"
#include "src/ioc/config/Config.h"
#include "src/ioc/engines/FilteringEngine.h"
#include "src/ioc/engines/HashMatchingEngine.h"
#include "src/ioc/engines/HeuristicsEngine.h"
#include "src/ioc/engines/TaggingEngine.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/Generator.h"
#include "src/ioc/rules/EventRuleManager.h"

namespace zagent::ioc {

// Indicators of compromise as the host sees them: the manifests' rules go to the rule engine, the events that come back
// are judged on a thread of the component's own, what is worth it goes as protocol buffers into a spool, and the spool
// goes to the platform.
//
// All operations belong to the host's control thread.
class Component {
 public:
  // What every component is given, in the order of all of them. The start time is the sensor's; the limits, in percent,
  // are the host's, and the thread that judges events paces itself by them.
  //
  // The spool's folder is `event_file_path`; a relative one lies under "<base_directory>/edr/", a missing one is
  // created (mode 0700). The snapshot of what is known lies in "<base_directory>/edr/SnapshotEdr.db". `scheduler`,
  // `engine`, `health` and `clock`, and the common configuration that `config` was made with, outlive the component.
  //
  // `quiet_hours` may be null: uploads keep to the intervals alone then. `digests` is the cache that the events have;
  // null: one of the component's own.
  //
  // Throws std::runtime_error "ioc::Component: 'uploader' cannot be null" and "ioc::Component: 'config' cannot be
  // null", and what a step throws: a folder, a spool or a snapshot that cannot be made. Nothing stays behind then.
  Component(std::chrono::system_clock::time_point start_time, std::unique_ptr<Config> config,
            const std::shared_ptr<edr::LibMagicWrapper>& lib_magic, common::Scheduler& scheduler,
            std::unique_ptr<common::Uploader> uploader, edr::EventRuleEngine& engine, std::uint64_t cpu_limit,
            std::uint64_t memory_limit, std::unique_ptr<const common::BlackoutManager> quiet_hours,
            health::HealthReporter& health, const std::string& base_directory,
            std::shared_ptr<common::util::DigestCache> digests = nullptr,
            common::util::Clock& clock = common::util::Clock::Real(), const std::string& proc_root = "/proc");
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
  // Waits for an upload and for the events that have come. The spool's cache is written to disk, and so is what is
  // known of processes.
  ~Component();

  // A new section "ioc_config". Spool limits, upload interval and manifests, with what they say to the engines, take
  // effect at once. Throws
  // std::invalid_argument "Ioc::Config::Update: Invalid json" and changes nothing.
  void UpdateConfig(const rapidjson::Value& json);

  // Events that wait for the thread that judges them, and memory that is kept by these, by the tasks of the spool, and
  // by its cache and the events that wait for a verdict.
  [[nodiscard]] std::uint64_t GetQueuedEvents() const { return thread_->GetQueuedEvents(); }
  [[nodiscard]] std::uint64_t GetQueuedBytes() const { return thread_->GetQueuedBytes(); }
  [[nodiscard]] std::uint64_t GetWaitingBytes() const { return storage_->GetWaitingBytes(); }
  [[nodiscard]] std::uint64_t GetCachedBytes() const { return storage_->GetCachedBytes() + tree_->GetCachedBytes(); }

 private:
  // Takes handlers and rules off the engine again.
  class Registration;

  [[nodiscard]] std::unique_ptr<internal::EventProcessor> MakeProcessor();
  void RegisterHandlers();
  [[nodiscard]] std::string GetGatewayUrl() const;
  void UpdateEngines();
  void UpdateEnabled();
  void ReportEnabled() const;
  void ClearStoredData();

  // Destroyed from the last to the first: what writes somewhere goes before it.
  const std::unique_ptr<Config> config_;
  const std::unique_ptr<const common::BlackoutManager> quiet_hours_;
  common::Scheduler& scheduler_;
  edr::EventRuleEngine& engine_;
  common::util::Clock& clock_;
  const health::ComponentHealth health_;
  std::unique_ptr<common::SqlStorage> snapshot_;
  std::unique_ptr<common::SpoolStorage> storage_;
  std::unique_ptr<TtlProcessTree> tree_;
  std::unique_ptr<internal::EventRuleManager> manager_;
  std::unique_ptr<internal::protobuf::Generator> generator_;
  const std::shared_ptr<common::util::DigestCache> digests_;
  // The processor's:
  internal::FilteringEngine* filtering_ = nullptr;
  internal::HashMatchingEngine* hash_matching_ = nullptr;
  internal::HeuristicsEngine* heuristics_ = nullptr;
  internal::TaggingEngine* tagging_ = nullptr;
  std::unique_ptr<internal::EventProcessor> processor_;
  std::unique_ptr<internal::ProcessingThread> thread_;
  std::shared_ptr<internal::UploadSchedule> upload_schedule_;
  std::unique_ptr<Registration> registration_;
  bool enabled_ = false;  // the configuration has manifests
};

}  // namespace zagent::ioc
