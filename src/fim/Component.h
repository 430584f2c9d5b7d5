#pragma once

#include <memory>
#include <string>

#include "common/src/http/Uploader.h"
#include "common/src/storage/SpoolStorage.h"
#include "common/src/tasks/BlackoutManager.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Clock.h"
#include "common/src/util/Json.h"
#include "src/edr/EventRuleEngine.h"
#include "src/fim/ClearSpoolTask.h"
#include "src/fim/Config.h"
#include "src/fim/EventProcessor.h"
#include "src/fim/EventRuleManager.h"
#include "src/fim/RuleTable.h"
#include "src/fim/UploadSchedule.h"

namespace zagent::fim {

// File integrity monitoring as the host sees it: the manifests' rules go to the rule engine, the events that come
// back go as JSON into a spool, and the spool goes to the platform.
//
// All operations belong to the host's control thread.
class Component {
 public:
  // The spool's folder is `event_file_path`; a relative one lies under "<base_directory>/fim/", a missing one is
  // created (mode 0700). `scheduler`, `engine` and `clock` outlive the component.
  //
  // `quiet_hours` may be null: uploads keep to the intervals alone then.
  //
  // Throws std::invalid_argument for a null `config` or `uploader`, and what a step throws: a folder or a spool that
  // cannot be made. Nothing stays behind then. A rule engine that cannot reach the kernel is only logged.
  Component(std::unique_ptr<Config> config, common::Scheduler& scheduler, std::unique_ptr<common::Uploader> uploader,
            edr::EventRuleEngine& engine, const std::string& base_directory,
            std::unique_ptr<const common::BlackoutManager> quiet_hours = nullptr,
            common::util::Clock& clock = common::util::Clock::Real());
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
  // Waits for an upload and for an event under way. The spool's cache is written to disk.
  ~Component();

  // A new section "fim_config". Spool limits, upload interval and URL, and manifests take effect at once;
  // `event_file_path` and `event_file_name` with the next start. An unchanged section changes nothing.
  // Throws std::invalid_argument "Fim::Config::Update: Invalid json" and changes nothing.
  void UpdateConfig(const rapidjson::Value& json);

 private:
  void UpdateEnabled();
  void StartClearTask();
  void Unregister(const std::shared_ptr<common::Schedule>& schedule);

  // Destroyed from the last to the first: what writes into the storage goes before it.
  const std::unique_ptr<Config> config_;
  const std::unique_ptr<const common::BlackoutManager> quiet_hours_;
  common::Scheduler& scheduler_;
  common::util::Clock& clock_;
  std::unique_ptr<common::SpoolStorage> storage_;
  internal::RuleTable rules_;
  std::unique_ptr<internal::EventProcessor> processor_;
  std::unique_ptr<internal::EventRuleManager> manager_;
  std::shared_ptr<internal::UploadSchedule> upload_schedule_;
  std::shared_ptr<internal::ClearSpoolTask> clear_task_;  // the Scheduler would not keep it alive
  bool enabled_ = false;                                  // the configuration has manifests
};

}  // namespace zagent::fim
