#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "src/fim/Config.h"
#include "src/fim/Manifest.h"
#include "src/fim/RuleTable.h"
#include "src/health/ComponentHealth.h"

namespace zagent::fim::internal {

// Turns the manifests of the configuration into live rules: fills the rule table and tells the rule engine.
//
// Each manifest is judged by itself: one that cannot be read or parsed is told in one Error line and skipped. What an
// update names again keeps the rules that it had then, as long as anything gives rules: an update that gives none takes
// the kept ones away too.
//
// A rule engine that cannot reach the kernel is logged; the rules stay in the table and reach the engine with the next
// change or when the engine says that it has lost its rules.
//
// Update, Disable and UnregisterHandlers belong to the control thread; the engine's invalidated handler may come from
// any thread meanwhile.
class EventRuleManager {
 public:
  static constexpr const char* kTag = "FIM";

  // Registers `handler`, loads the manifests and applies their rules. `engine`, `table` and `health` outlive the
  // manager.
  EventRuleManager(const Config& config, edr::EventRuleEngine& engine, RuleTable& table,
                   const health::ComponentHealth& health, edr::EventRuleEngine::RuleMatchedEventHandler handler);
  EventRuleManager(const EventRuleManager&) = delete;
  EventRuleManager& operator=(const EventRuleManager&) = delete;
  // Unregisters the handlers and takes the rules off the engine.
  ~EventRuleManager();

  // Loads the manifests again and replaces the rules if the list of manifests has changed (by path and type).
  void Update(const Config& config);
  // Takes all rules away. A later Update loads again, whatever its list.
  void Disable();
  // On return no handler runs and none will be called. A second call does nothing.
  void UnregisterHandlers();

  [[nodiscard]] std::shared_ptr<const EventRule> GetRule(const std::string& id) const { return table_.GetRule(id); }

 private:
  using LoadedManifests = std::map<std::string, Manifest>;  // by path
  // By the path of a manifest, why it cannot be used; an empty text when it can.
  using Verdicts = std::map<std::string, std::string>;
  // What has become of the manifests that the table was made of.
  struct Outcome {
    Verdicts verdicts;
    std::map<std::string, std::string> owners;  // by the id of a rule of the table, the path of its manifest
  };
  // A failure of the engine; without text there is none, without refusals it concerns all rules.
  struct EngineFailure {
    std::string text;
    edr::RuleEngineException::Refusals refusals;
  };

  void Load(const std::vector<Config::ManifestEntry>& manifests);
  void KeepEarlier(const std::vector<Config::ManifestEntry>& manifests, LoadedManifests& loaded) const;
  void BuildTable(const std::vector<Config::ManifestEntry>& manifests, Verdicts verdicts);
  void ReplaceTable(RuleTable::Rules rules, bool collect_hashes, Outcome outcome);
  void Apply();
  EngineFailure HandToEngine(edr::EventRuleEngine::Rules rules);
  // Tells what has become of each manifest.
  void Report(const EngineFailure& failure);

  edr::EventRuleEngine& engine_;
  RuleTable& table_;
  const health::ComponentHealth& health_;
  bool handlers_registered_ = false;
  LoadedManifests loaded_;  // those of the table; control thread

  std::mutex mutex_;
  std::vector<Config::ManifestEntry> manifests_;  // in force
  Outcome outcome_;                               // of those that the table was made of
  std::uint64_t generation_ = 0;                  // of the table
  bool installed_ = false;                        // the engine may hold rules of this component
};

}  // namespace zagent::fim::internal
