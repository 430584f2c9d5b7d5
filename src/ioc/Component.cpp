#include "src/ioc/Component.h"

#include <charconv>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SpoolFolder.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "src/ioc/process/SnapshotStorage.h"
#include "src/ioc/protobuf/DataFormatter.h"

namespace zagent::ioc {
namespace {

using internal::SnapshotSqlDataFormatter;

constexpr const char* kTag = internal::EventRuleManager::kTag;
constexpr std::chrono::seconds kTimeToLive{120};
// So many events of a kind pass the heuristics.
constexpr std::uint64_t kMaxCount = 10;

template <typename T>
std::unique_ptr<T> NotNull(std::unique_ptr<T> pointer, const char* error) {
  if (pointer == nullptr) throw std::runtime_error(error);
  return pointer;
}

std::string WorkingDirectory(std::string base) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + "/edr";
}

common::SpoolStorage::Limits SpoolLimits(const Config& config) {
  return {config.GetMaxDiskSizeMb(), config.GetMaxFileAgeSec(), config.GetMaxFileSizeKb()};
}

// That of the last batch of the run before this one.
std::int64_t ReadSequenceNumber(common::SqlStorage& snapshot) {
  try {
    const common::Bytes row =
        snapshot.Read(SnapshotSqlDataFormatter::kClientInformation, SnapshotSqlDataFormatter::kSequenceNumber);
    common::Serializer columns(row);
    columns.GetString();  // the name
    const std::string text = columns.GetString();
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool is_number = error == std::errc() && end == text.data() + text.size();
    if (is_number && number >= 0 && number < std::numeric_limits<std::int64_t>::max()) return number;
  } catch (const std::exception& error) {
    ZLOG_DEBUG("Component: " << error.what());
  }
  ZLOG_ERROR("Error in reading sequence number");
  return 0;
}

}  // namespace

class Component::Registration {
 public:
  explicit Registration(edr::EventRuleEngine& engine) : engine_(engine) {}
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration() {
    try {
      engine_.UnregisterEventHandlers(kTag);
      engine_.AddRules(kTag, {});
    } catch (const std::exception& error) {
      ZLOG_WARNING("Component: " << error.what());
    }
  }

 private:
  edr::EventRuleEngine& engine_;
};

Component::Component(std::chrono::system_clock::time_point /*start_time*/, std::unique_ptr<Config> config,
                     const std::shared_ptr<edr::LibMagicWrapper>& /*lib_magic*/, common::Scheduler& scheduler,
                     std::unique_ptr<common::Uploader> uploader, edr::EventRuleEngine& engine, std::uint64_t cpu_limit,
                     std::uint64_t memory_limit, std::unique_ptr<const common::BlackoutManager> quiet_hours,
                     health::HealthReporter& health, const std::string& base_directory,
                     std::shared_ptr<common::util::DigestCache> digests, common::util::Clock& clock,
                     const std::string& proc_root)
    : config_(NotNull(std::move(config), "ioc::Component: 'config' cannot be null")),
      quiet_hours_(std::move(quiet_hours)),
      scheduler_(scheduler),
      engine_(engine),
      clock_(clock),
      health_(health, health::ComponentHealth::Kind::Ioc),
      digests_(digests != nullptr ? std::move(digests) : std::make_shared<common::util::DigestCache>(clock)) {
  uploader = NotNull(std::move(uploader), "ioc::Component: 'uploader' cannot be null");
  const std::string directory = WorkingDirectory(base_directory);
  snapshot_ = internal::OpenSnapshotStorage(directory, &scheduler, proc_root);
  storage_ = std::make_unique<common::SpoolStorage>(
      scheduler, common::PrepareSpoolFolder("IocComponent", config_->GetEventFilePath(), directory + "/"),
      config_->GetEventFileName(),
      std::make_unique<internal::protobuf::DataFormatter>(*config_, ReadSequenceNumber(*snapshot_), *snapshot_,
                                                          proc_root),
      SpoolLimits(*config_), common::SpoolStorage::kMaxFileCount, clock);
  storage_->SetRemovedCallback([this](std::uint64_t bytes) { health_.CountRemovedFile(bytes); });
  tree_ = std::make_unique<TtlProcessTree>(snapshot_.get(), kTimeToLive, clock, proc_root);
  registration_ = std::make_unique<Registration>(engine);
  manager_ = std::make_unique<internal::EventRuleManager>(*config_, engine, *tree_, health_);
  enabled_ = !config_->GetManifests().empty();
  generator_ = std::make_unique<internal::protobuf::Generator>(*tree_, *storage_, *snapshot_, *config_, health_, clock,
                                                               digests_);
  generator_->Enable(enabled_);
  processor_ = MakeProcessor();
  thread_ = std::make_unique<internal::ProcessingThread>(
      [this](std::unique_ptr<edr::Event> event) { processor_->Process(std::move(event)); },
      [this](std::uint64_t events) { health_.CountDropped(events); }, cpu_limit, memory_limit, clock, proc_root,
      [this] { generator_->BeginTurn(); });
  thread_->Start();
  RegisterHandlers();
  upload_schedule_ = std::make_shared<internal::UploadSchedule>(
      *config_, *storage_, GetGatewayUrl(), std::move(uploader), quiet_hours_.get(), health_, clock);
  scheduler_.RegisterSchedule(upload_schedule_);
  ZLOG_INFO("Component initialized.");
  ReportEnabled();
}

Component::~Component() {
  registration_.reset();
  try {
    scheduler_.UnregisterSchedule(upload_schedule_);
  } catch (const std::exception& error) {
    ZLOG_WARNING("Component: " << error.what());
  }
  thread_.reset();  // with what it still has
  processor_.reset();
  manager_.reset();
  generator_.reset();
  tree_.reset();     // saves itself
  storage_.reset();  // flushes its cache, and tells the snapshot of its last batch
  snapshot_.reset();
  ZLOG_INFO("Ioc component destroyed.");
  health_.Stopped();
}

std::unique_ptr<internal::EventProcessor> Component::MakeProcessor() {
  internal::EventProcessor::Engines engines;
  auto filtering = std::make_unique<internal::FilteringEngine>(*tree_, *manager_);
  filtering_ = filtering.get();
  engines.filtering = std::move(filtering);
  auto heuristics =
      std::make_unique<internal::HeuristicsEngine>(*tree_, kMaxCount, manager_->IsHeuristicsEnabled(), clock_);
  heuristics_ = heuristics.get();
  engines.heuristics = std::move(heuristics);
  auto hash_matching =
      std::make_unique<internal::HashMatchingEngine>(*tree_, manager_->GetKnownProcessPaths(), *digests_);
  hash_matching_ = hash_matching.get();
  engines.hash_matching = std::move(hash_matching);
  auto tagging = std::make_unique<internal::TaggingEngine>(*tree_, *manager_->GetTaggingSettings());
  tagging_ = tagging.get();
  engines.threshold_score = [this] { return tagging_->GetThresholdScore(); };
  engines.tagging = std::move(tagging);
  return std::make_unique<internal::EventProcessor>(
      std::move(engines), *tree_, *generator_, [this] { return manager_->GetSendMetadata(); }, health_, clock_);
}

void Component::RegisterHandlers() {
  engine_.RegisterEventKeeper(
      kTag,
      [this](const std::vector<std::string>& /*rule_ids*/, std::unique_ptr<edr::Event> event) {
        thread_->Enqueue(std::move(event));
      },
      [this] { manager_->OnRulesInvalidated(); });
}

std::string Component::GetGatewayUrl() const {
  return manager_->HasGatewayUrl() ? manager_->GetGatewayUrl() : "";
}

void Component::UpdateConfig(const rapidjson::Value& json) {
  config_->Update(json);
  storage_->Update(SpoolLimits(*config_));
  upload_schedule_->Reschedule();
  // Before the kernel has the new rules: what they bring is judged by them.
  const auto on_loaded = [this] {
    UpdateEngines();
    if (!config_->GetManifests().empty()) generator_->Enable(true);
  };
  if (manager_->Update(on_loaded)) upload_schedule_->SetGatewayUrlPrefix(GetGatewayUrl());
  UpdateEnabled();
}

void Component::UpdateEngines() {
  hash_matching_->SetKnownProcessPaths(manager_->GetKnownProcessPaths());
  filtering_->OnRulesChanged();
  tagging_->Configure(*manager_->GetTaggingSettings());
  heuristics_->Configure(kMaxCount, manager_->IsHeuristicsEnabled());
}

void Component::UpdateEnabled() {
  const bool has_manifests = !config_->GetManifests().empty();
  if (enabled_ && !has_manifests) ZLOG_INFO("Disabling IOC");
  // What still waits for a verdict, or ends, is nobody's business from here on.
  generator_->Enable(has_manifests);
  if (enabled_ && !has_manifests) ClearStoredData();
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

void Component::ClearStoredData() {
  try {
    snapshot_->Clear();
    ZLOG_INFO("Successfully cleared sql storage");
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to clear sql storage: " << error.what());
  }
  storage_->ClearAsync([](bool cleared) {
    if (cleared) {
      ZLOG_INFO("Successfully cleared spool storage");
    } else {
      ZLOG_ERROR("Failed to clear spool storage");
    }
  });
}

}  // namespace zagent::ioc
