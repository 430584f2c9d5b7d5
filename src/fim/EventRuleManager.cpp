#include "src/fim/EventRuleManager.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"
#include "src/fim/ManifestFile.h"
#include "src/fim/RuleTableBuilder.h"

namespace zagent::fim::internal {
namespace {

using Manifests = std::vector<Config::ManifestEntry>;

bool SameManifests(const Manifests& left, const Manifests& right) {
  return left.size() == right.size() && std::all_of(left.begin(), left.end(), [&](const Config::ManifestEntry& entry) {
           return std::find(right.begin(), right.end(), entry) != right.end();
         });
}

std::string NotApplied(const std::string& rule_id, const std::string& why) {
  return "rule " + rule_id + " not applied: " + why;
}

}  // namespace

EventRuleManager::EventRuleManager(const Config& config, edr::EventRuleEngine& engine, RuleTable& table,
                                   const health::ComponentHealth& health,
                                   edr::EventRuleEngine::RuleMatchedEventHandler handler)
    : engine_(engine), table_(table), health_(health), manifests_(config.GetManifests()) {
  Load(manifests_);
  // Before the rules, so that the first event finds its way.
  engine_.RegisterEventHandlers(kTag, std::move(handler), [this] { Apply(); });
  handlers_registered_ = true;
  Apply();
}

EventRuleManager::~EventRuleManager() {
  UnregisterHandlers();
  Disable();
}

void EventRuleManager::UnregisterHandlers() {
  if (!std::exchange(handlers_registered_, false)) return;
  try {
    engine_.UnregisterEventHandlers(kTag);
  } catch (const std::exception& error) {
    ZLOG_ERROR("EventRuleManager: " << error.what());
  }
}

void EventRuleManager::Load(const Manifests& manifests) {
  LoadedManifests loaded;
  Verdicts verdicts;
  bool gives_rules = false;
  for (const Config::ManifestEntry& entry : manifests) {
    std::string& fault = verdicts[entry.path];
    try {
      Manifest manifest = ReadManifestFile(entry.path).manifest;
      ZLOG_INFO("Successfully parsed manifest file " << entry.path);
      if (!manifest.HasKnownVersion()) fault = "unknown version " + manifest.GetPolicyVersion();
      gives_rules = gives_rules || !manifest.GetRules().empty();
      loaded.insert_or_assign(entry.path, std::move(manifest));
    } catch (const ManifestFileException& error) {
      ZLOG_ERROR(error.what());
      fault = error.what();
    }
  }
  if (gives_rules) KeepEarlier(manifests, loaded);
  loaded_ = std::move(loaded);
  BuildTable(manifests, std::move(verdicts));
}

// A manifest that has become bad takes nothing away, its own earlier rules included.
void EventRuleManager::KeepEarlier(const Manifests& manifests, LoadedManifests& loaded) const {
  for (const Config::ManifestEntry& entry : manifests) {
    const auto earlier = loaded_.find(entry.path);
    if (earlier == loaded_.end() || loaded.count(entry.path) != 0) continue;
    ZLOG_INFO("Keeping the earlier rules of manifest " << entry.path);
    loaded.insert(*earlier);
  }
}

void EventRuleManager::BuildTable(const Manifests& manifests, Verdicts verdicts) {
  RuleTableBuilder table;
  Outcome outcome{std::move(verdicts), {}};
  bool collect_hashes = false;
  for (const Config::ManifestEntry& entry : manifests) {
    const auto manifest = loaded_.find(entry.path);
    if (manifest == loaded_.end()) continue;
    collect_hashes = collect_hashes || manifest->second.CollectsHashes();
    for (const auto& rule : manifest->second.GetRules()) {
      const RuleTableBuilder::Ids ids = table.Add(rule);
      for (const std::string& id : ids) outcome.owners.insert_or_assign(id, entry.path);
      std::string& fault = outcome.verdicts[entry.path];
      if (ids.empty() && fault.empty()) fault = NotApplied(rule->GetId(), "its path gives no rule");
    }
  }
  ReplaceTable(table.Take(), collect_hashes, std::move(outcome));
}

void EventRuleManager::ReplaceTable(RuleTable::Rules rules, bool collect_hashes, Outcome outcome) {
  const std::lock_guard lock(mutex_);
  table_.Replace(std::move(rules), collect_hashes);
  outcome_ = std::move(outcome);
  ++generation_;
}

void EventRuleManager::Update(const Config& config) {
  Manifests manifests = config.GetManifests();
  {
    const std::lock_guard lock(mutex_);
    if (SameManifests(manifests, manifests_)) return;
    manifests_ = manifests;
  }
  Load(manifests);
  Apply();
}

void EventRuleManager::Disable() {
  {
    const std::lock_guard lock(mutex_);
    manifests_.clear();
  }
  loaded_.clear();
  ReplaceTable({}, false, {});
  Apply();
}

// The engine is called without the mutex. An update may pass an older set on its way to the engine: whoever sees that
// the table has moved on meanwhile applies once more, so that the newest set is always the last.
void EventRuleManager::Apply() {
  std::uint64_t applied = 0;
  bool current = false;
  EngineFailure failure;
  while (!current) {
    edr::EventRuleEngine::Rules rules;
    {
      const std::lock_guard lock(mutex_);
      applied = generation_;
      rules = table_.GetRules();
      if (rules.empty()) ZLOG_INFO("EventRuleManager: No rules to be added.");
      if (rules.empty() && !installed_) break;
      installed_ = true;
    }
    const bool removed = rules.empty();
    failure = HandToEngine(std::move(rules));
    const std::lock_guard lock(mutex_);
    current = applied == generation_;
    if (current && removed && failure.text.empty()) installed_ = false;
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
  Outcome outcome;
  {
    const std::lock_guard lock(mutex_);
    outcome = outcome_;
  }
  const bool concerns_all = !failure.text.empty() && failure.refusals.empty();
  for (auto& [path, fault] : outcome.verdicts) {
    if (fault.empty() && concerns_all) fault = "rules not applied: " + failure.text;
  }
  for (const auto& [id, why] : failure.refusals) {
    const auto owner = outcome.owners.find(id);
    if (owner == outcome.owners.end()) continue;
    std::string& fault = outcome.verdicts[owner->second];
    if (fault.empty()) fault = NotApplied(id, why);
  }
  for (const auto& [path, fault] : outcome.verdicts) {
    if (fault.empty()) {
      health_.ManifestApplied(path);
    } else {
      health_.ManifestFailed(path, fault);
    }
  }
}

}  // namespace zagent::fim::internal
