#include "src/ioc/rules/EventRuleManager.h"

#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/LinkedRules.h"
#include "src/ioc/rules/ManifestFile.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

std::shared_ptr<const rapidjson::Document> CopyOf(const rapidjson::Value& object) {
  auto copy = std::make_shared<rapidjson::Document>(rapidjson::kObjectType);
  copy->CopyFrom(object, copy->GetAllocator());
  return copy;
}

bool IsOfPath(const edr::EventRule& rule) {
  return rule.GetType() == edr::ObjectType::File || rule.GetType() == edr::ObjectType::Directory;
}

std::string NotApplied(const std::string& rule_id, const std::string& why) {
  return "rule " + rule_id + " not applied: " + why;
}

}  // namespace

EventRuleManager::EventRuleManager(const Config& config, edr::EventRuleEngine& engine, const TtlProcessTree& tree,
                                   const health::ComponentHealth& health)
    : config_(config), engine_(engine), tree_(tree), health_(health), manifests_(config.GetManifests()) {
  loaded_.tagging_settings = std::make_shared<const rapidjson::Document>(rapidjson::kObjectType);
  Load(manifests_);
  Apply();
}

// Files are read without the mutex: events ask for settings meanwhile.
void EventRuleManager::Load(const Manifests& manifests) {
  Loaded loaded = Locked(loaded_);
  loaded.rules.clear();
  loaded.whitelist_rules.clear();
  loaded.has_gateway_url = false;
  loaded.gateway_url.clear();
  loaded.verdicts.clear();
  loaded.owners.clear();
  GivenRules given;
  for (const Config::ManifestEntry& entry : manifests) {
    std::string& fault = loaded.verdicts[entry.path];
    try {
      const ManifestFile file = ReadManifestFile(entry.path, tree_);
      ZLOG_INFO("Successfully parsed manifest file " << entry.path);
      Take(file.manifest, entry.path, given, loaded);
    } catch (const ManifestFileException& error) {
      ZLOG_ERROR(error.what());
      fault = error.what();
    }
  }
  Derive(given, loaded);
  const std::lock_guard lock(mutex_);
  loaded_ = std::move(loaded);
  ++generation_;
}

void EventRuleManager::Take(const Manifest& manifest, const std::string& path, GivenRules& given, Loaded& loaded) {
  for (const auto& rule : manifest.GetRules()) {
    ZLOG_DEBUG("Adding rule " << rule->GetId());
    if (!given.insert_or_assign(rule->GetId(), Given{rule, path}).second) {
      ZLOG_WARNING("Rule id " << rule->GetId() << " is used more than once: the last rule holds");
    }
  }
  for (const auto& of_manifest : manifest.GetWhitelistGlobalRules()) {
    if (!HasUsablePath(*of_manifest, path, loaded)) continue;
    for (const auto& rule : FollowLinks(of_manifest)) loaded.whitelist_rules.push_back(rule);
  }
  if (manifest.HasGatewayUrl()) {
    loaded.has_gateway_url = true;
    loaded.gateway_url = manifest.GetGatewayUrl();
  }
  loaded.known_process_paths = manifest.GetKnownProcessPaths();
  loaded.tagging_settings = CopyOf(manifest.GetTaggingSettings());
  loaded.send_metadata = manifest.GetSendMetadata();
  loaded.is_heuristics_enabled = manifest.IsHeuristicsEnabled();
}

void EventRuleManager::Derive(const GivenRules& given, Loaded& loaded) {
  const auto is_taken = [&](const std::string& id) { return given.count(id) != 0 || loaded.rules.count(id) != 0; };
  for (const auto& [id, of_manifest] : given) {
    if (IsOfPath(*of_manifest.rule) && !HasUsablePath(*of_manifest.rule, of_manifest.manifest, loaded)) continue;
    for (const auto& rule : FollowLinks(of_manifest.rule, is_taken)) {
      loaded.rules.emplace(rule->GetId(), rule);
      loaded.owners.emplace(rule->GetId(), of_manifest.manifest);
    }
  }
}

bool EventRuleManager::HasUsablePath(const edr::EventRule& rule, const std::string& manifest, Loaded& loaded) {
  const char* why = WhyNobodysPath(rule.GetPath());
  if (why == nullptr) return true;
  const std::string text = NotApplied(rule.GetId(), std::string("its path is ") + why);
  ZLOG_ERROR("EventRuleManager: " << manifest << ": " << text);
  std::string& fault = loaded.verdicts[manifest];
  if (fault.empty()) fault = text;
  return false;
}

// Not by the engine's Invalidate, which takes all rules out of the kernel, those of others too: what stays in the
// manifests would miss what happens meanwhile.
bool EventRuleManager::Update(const std::function<void()>& on_loaded) {
  Manifests manifests = config_.GetManifests();
  {
    const std::lock_guard lock(mutex_);
    if (Config::AreSame(manifests, manifests_)) return false;
    manifests_ = manifests;
  }
  Load(manifests);
  if (on_loaded) on_loaded();
  Apply();
  return true;
}

void EventRuleManager::OnRulesInvalidated() {
  Apply();
}

// The engine is called without the mutex. An update may pass an older set on its way to the engine: whoever sees that
// the rules have changed meanwhile applies once more, so that the newest set is always the last.
void EventRuleManager::Apply() {
  EngineFailure failure;
  bool is_current = false;
  while (!is_current) {
    edr::EventRuleEngine::Rules rules;
    std::uint64_t applied = 0;
    {
      const std::lock_guard lock(mutex_);
      applied = generation_;
      for (const auto& [id, rule] : loaded_.rules) {
        // A rule without an action hears of nothing, and gives the kernel nothing to watch.
        if (!edr::EventTypesOf(*rule).empty()) rules.push_back(rule);
      }
    }
    failure = HandToEngine(std::move(rules));
    const std::lock_guard lock(mutex_);
    is_current = applied == generation_;
  }
  Report(failure);
}

EventRuleManager::EngineFailure EventRuleManager::HandToEngine(edr::EventRuleEngine::Rules rules) {
  EngineFailure failure;
  try {
    engine_.AddRules(kTag, std::move(rules));
    return failure;
  } catch (const edr::RuleEngineException& error) {
    failure = {error.what(), error.GetRefusals()};
  } catch (const std::exception& error) {
    failure.text = error.what();
  }
  ZLOG_ERROR("EventRuleManager: Failed to apply rules: " << failure.text);
  return failure;
}

void EventRuleManager::Report(const EngineFailure& failure) {
  Verdicts verdicts;
  std::map<std::string, std::string> owners;
  {
    const std::lock_guard lock(mutex_);
    verdicts = loaded_.verdicts;
    owners = loaded_.owners;
  }
  const bool concerns_all = !failure.text.empty() && failure.refusals.empty();
  for (auto& [path, fault] : verdicts) {
    if (fault.empty() && concerns_all) fault = "rules not applied: " + failure.text;
  }
  for (const auto& [id, why] : failure.refusals) {
    const auto owner = owners.find(id);
    if (owner == owners.end()) continue;
    std::string& fault = verdicts[owner->second];
    if (fault.empty()) fault = NotApplied(id, why);
  }
  for (const auto& [path, fault] : verdicts) {
    if (fault.empty()) {
      health_.ManifestApplied(path);
    } else {
      health_.ManifestFailed(path, fault);
    }
  }
}

Manifest::Rules EventRuleManager::GetRules() const {
  const std::lock_guard lock(mutex_);
  Manifest::Rules rules;
  rules.reserve(loaded_.rules.size());
  for (const auto& [id, rule] : loaded_.rules) rules.push_back(rule);
  return rules;
}

Manifest::WhitelistRules EventRuleManager::GetWhitelistGlobalRules() const {
  return Locked(loaded_.whitelist_rules);
}

bool EventRuleManager::HasGatewayUrl() const {
  return Locked(loaded_.has_gateway_url);
}

std::string EventRuleManager::GetGatewayUrl() const {
  const std::lock_guard lock(mutex_);
  if (!loaded_.has_gateway_url) throw std::runtime_error("EventRuleManager: Gateway URL does not exist");
  return loaded_.gateway_url;
}

bool EventRuleManager::IsHeuristicsEnabled() const {
  return Locked(loaded_.is_heuristics_enabled);
}

bool EventRuleManager::GetSendMetadata() const {
  return Locked(loaded_.send_metadata);
}

std::vector<std::string> EventRuleManager::GetKnownProcessPaths() const {
  return Locked(loaded_.known_process_paths);
}

std::shared_ptr<const rapidjson::Document> EventRuleManager::GetTaggingSettings() const {
  return Locked(loaded_.tagging_settings);
}

}  // namespace zagent::ioc::internal
