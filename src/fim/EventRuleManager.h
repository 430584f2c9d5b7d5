#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "src/fim/Config.h"
#include "src/fim/RuleTable.h"

namespace zagent::fim::internal {

// Turns the manifests of the configuration into live rules: fills the rule table and tells the rule engine.
//
// Each manifest is judged by itself: one that cannot be read or parsed is logged and skipped. Audit reports real
// objects only, so a rule on a symbolic link becomes two: the link itself under "<id>-1" and what it points to under
// the id of the manifest.
//
// A rule engine that cannot reach the kernel is logged; the rules stay in the table and reach the engine with the next
// change or when the engine says that it has lost its rules.
//
// Update, Disable and UnregisterHandlers belong to the control thread; the engine's invalidated handler may come from
// any thread meanwhile.
class EventRuleManager {
 public:
  static constexpr const char* kTag = "FIM";

  // Registers `handler`, loads the manifests and applies their rules. `engine` and `table` outlive the manager.
  EventRuleManager(const Config& config, edr::EventRuleEngine& engine, RuleTable& table,
                   edr::EventRuleEngine::RuleMatchedEventHandler handler);
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
  void Load(const std::vector<Config::ManifestEntry>& manifests);
  void ReplaceTable(RuleTable::Rules rules, bool collect_hashes);
  void Apply();
  bool HandToEngine(edr::EventRuleEngine::Rules rules);

  edr::EventRuleEngine& engine_;
  RuleTable& table_;
  bool handlers_registered_ = false;

  std::mutex mutex_;
  std::vector<Config::ManifestEntry> manifests_;  // in force
  std::uint64_t generation_ = 0;                  // of the table
  bool installed_ = false;                        // the engine may hold rules of this component
};

}  // namespace zagent::fim::internal
