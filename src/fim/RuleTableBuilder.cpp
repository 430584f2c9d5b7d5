#include "src/fim/RuleTableBuilder.h"

#include <optional>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LinkedPath.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {

RuleTableBuilder::Ids RuleTableBuilder::Add(const std::shared_ptr<const EventRule>& rule) {
  if (!edr::LeadsThroughLink(rule->GetPath())) {
    ZLOG_INFO("Adding rule " << rule->GetId());
    Insert(rule);
    return {rule->GetId()};
  }
  Ids derived = AddSymlink(*rule);
  if (derived.empty()) {
    ZLOG_ERROR("Could not create any rules from symlink monitoring path " << rule->GetPath());
  }
  return derived;
}

// Audit reports only real objects: a link is watched as itself and as what it points to, and what lies behind links
// as it is written and as it is meant.
RuleTableBuilder::Ids RuleTableBuilder::AddSymlink(const EventRule& rule) {
  ZLOG_INFO("Adding symlink rule " << rule.GetId());
  Ids derived;
  Derive(rule, rule.GetId() + "-1", rule.GetPath(), derived);
  if (const std::optional<std::string> target = edr::ResolveLink(rule.GetPath())) {
    ZLOG_INFO("Adding resolved rule " << rule.GetId() << " with path " << *target);
    Derive(rule, rule.GetId(), *target, derived);
  } else {
    ZLOG_WARNING("Cannot resolve symlink " << rule.GetPath());
  }
  return derived;
}

void RuleTableBuilder::Derive(const EventRule& rule, const std::string& id, const std::string& path, Ids& derived) {
  try {
    Insert(std::make_shared<const EventRule>(rule, id, path));
    derived.push_back(id);
  } catch (const edr::EventRuleException& error) {
    ZLOG_ERROR("Rule " << id << ": " << error.what());
  }
}

void RuleTableBuilder::Insert(const std::shared_ptr<const EventRule>& rule) {
  if (!rules_.insert_or_assign(rule->GetId(), rule).second) {
    ZLOG_WARNING("Rule id " << rule->GetId() << " is used more than once: the last rule holds");
  }
}

}  // namespace zagent::fim::internal
