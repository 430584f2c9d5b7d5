#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "src/edr/EventRuleEngine.h"
#include "src/fim/EventRule.h"

namespace zagent::fim::internal {

// The rules in force. EventRuleManager replaces them on the control path, EventProcessor asks for them on the event
// path; a rule that was handed out stays valid for its event. Thread-safe.
class RuleTable {
 public:
  using Rules = std::unordered_map<std::string, std::shared_ptr<const EventRule>>;

  // `collect_hashes`: a manifest in force asks for file digests.
  void Replace(Rules rules, bool collect_hashes);

  // The rule of an id, or nullptr.
  [[nodiscard]] std::shared_ptr<const EventRule> GetRule(const std::string& id) const;
  [[nodiscard]] bool CollectsHashes() const;

  // All rules as the rule engine takes them.
  [[nodiscard]] edr::EventRuleEngine::Rules GetRules() const;

 private:
  mutable std::mutex mutex_;
  Rules rules_;
  bool collect_hashes_ = false;
};

}  // namespace zagent::fim::internal
