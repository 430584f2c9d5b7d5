#include "src/fim/RuleTable.h"

namespace zagent::fim::internal {

void RuleTable::Replace(Rules rules, bool collect_hashes) {
  // The old rules go when the lock is free again.
  const std::lock_guard lock(mutex_);
  rules_.swap(rules);
  collect_hashes_ = collect_hashes;
}

std::shared_ptr<const EventRule> RuleTable::GetRule(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = rules_.find(id);
  return found != rules_.end() ? found->second : nullptr;
}

bool RuleTable::CollectsHashes() const {
  const std::lock_guard lock(mutex_);
  return collect_hashes_;
}

edr::EventRuleEngine::Rules RuleTable::GetRules() const {
  const std::lock_guard lock(mutex_);
  edr::EventRuleEngine::Rules rules;
  rules.reserve(rules_.size());
  for (const auto& [id, rule] : rules_) rules.push_back(rule);
  return rules;
}

}  // namespace zagent::fim::internal
