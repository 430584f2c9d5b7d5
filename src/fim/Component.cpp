#include "src/fim/Component.h"

#include <stdexcept>
#include <utility>

#include "common/src/storage/SpoolFolder.h"
#include "common/src/util/Log.h"
#include "src/fim/JsonDataFormatter.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim {
namespace {

template <typename T>
std::unique_ptr<T> NotNull(std::unique_ptr<T> pointer, const char* error) {
  if (pointer == nullptr) throw std::invalid_argument(error);
  return pointer;
}

std::string WorkingDirectory(std::string base) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + "/fim/";
}

common::SpoolStorage::Limits SpoolLimits(const Config& config) {
  return {config.GetMaxDiskSizeMb(), config.GetMaxFileAgeSec(), config.GetMaxFileSizeKb()};
}

std::unique_ptr<common::SpoolStorage> OpenSpool(const Config& config, const std::string& base_directory,
                                                common::Scheduler& scheduler, common::util::Clock& clock) {
  return std::make_unique<common::SpoolStorage>(
      scheduler,
      common::PrepareSpoolFolder("FimComponent", config.GetEventFilePath(), WorkingDirectory(base_directory)),
      config.GetEventFileName(), std::make_unique<internal::JsonDataFormatter>(), SpoolLimits(config),
      common::SpoolStorage::kMaxFileCount, clock);
}

}  // namespace

Component::Component(std::chrono::system_clock::time_point /*start_time*/, std::unique_ptr<Config> config,
                     const std::shared_ptr<edr::LibMagicWrapper>& /*lib_magic*/, common::Scheduler& scheduler,
                     std::unique_ptr<common::Uploader> uploader, edr::EventRuleEngine& engine,
                     std::uint64_t /*cpu_limit*/, std::uint64_t /*memory_limit*/,
                     std::unique_ptr<const common::BlackoutManager> quiet_hours, health::HealthReporter& health,
                     const std::string& base_directory, std::shared_ptr<common::util::DigestCache> digests,
                     common::util::Clock& clock)
    : config_(NotNull(std::move(config), "FimComponent: 'config' cannot be null")),
      quiet_hours_(std::move(quiet_hours)),
      scheduler_(scheduler),
      clock_(clock),
      health_(health, health::ComponentHealth::Kind::Fim),
      digests_(digests != nullptr ? std::move(digests) : std::make_shared<common::util::DigestCache>(clock)) {
  uploader = NotNull(std::move(uploader), "FimComponent: 'uploader' cannot be null");
  enabled_ = !config_->GetManifests().empty();
  storage_ = OpenSpool(*config_, base_directory, scheduler, clock);
  baseline_ = std::make_unique<internal::Baseline>(WorkingDirectory(base_directory), clock);
  storage_->SetFiledCallback([this] { baseline_->KeepFiled(); });
  storage_->SetDroppedCallback([this] { baseline_->GiveUpSpooled(); });
  storage_->SetClearingCallback([this] { baseline_->ForgetFiled(); });
  storage_->SetRemovedCallback([this](std::uint64_t bytes) { health_.CountRemovedFile(bytes); });
  processor_ = std::make_unique<internal::EventProcessor>(rules_, *storage_, *baseline_, *digests_, health_, clock);
  manager_ = std::make_unique<internal::EventRuleManager>(
      *config_, engine, rules_, health_,
      [processor = processor_.get()](const std::vector<std::string>& rule_ids, const edr::Event& event) {
        processor->PostProcess(rule_ids, event);
      });
  upload_schedule_ = std::make_shared<internal::UploadSchedule>(*config_, *storage_, std::move(uploader),
                                                                quiet_hours_.get(), health_, clock);
  scheduler_.RegisterSchedule(upload_schedule_);
  ZLOG_INFO("Component initialized.");
  ReportEnabled();
}

Component::~Component() {
  manager_->UnregisterHandlers();
  Unregister(upload_schedule_);
  Unregister(clear_task_);
  manager_.reset();  // takes the rules off the engine
  processor_.reset();
  storage_.reset();  // flushes its cache
  ZLOG_INFO("Component destroyed.");
  health_.Stopped();
}

void Component::Unregister(const std::shared_ptr<common::Schedule>& schedule) {
  if (schedule == nullptr) return;
  try {
    scheduler_.UnregisterSchedule(schedule);
  } catch (const std::exception& error) {
    ZLOG_WARNING("Component: " << error.what());
  }
}

void Component::UpdateConfig(const rapidjson::Value& json) {
  if (!config_->Update(json)) {
    ZLOG_DEBUG("Component::UpdateConfig: Configuration is unchanged");
    return;
  }
  storage_->Update(SpoolLimits(*config_));
  upload_schedule_->Reschedule();
  manager_->Update(*config_);
  UpdateEnabled();
  ZLOG_INFO("Component::UpdateConfig: Configuration updated");
}

void Component::UpdateEnabled() {
  const bool has_manifests = !config_->GetManifests().empty();
  if (enabled_ && !has_manifests) {
    ZLOG_INFO("Disabling FIM");
    manager_->Disable();
    StartClearTask();
  }
  enabled_ = has_manifests;
  ReportEnabled();
}

void Component::ReportEnabled() const {
  if (enabled_) {
    health_.Started();
  } else {
    health_.Disabled();
  }
}

void Component::StartClearTask() {
  Unregister(clear_task_);
  clear_task_ = std::make_shared<internal::ClearSpoolTask>(*storage_, clock_);
  scheduler_.RegisterSchedule(clear_task_);
}

}  // namespace zagent::fim
