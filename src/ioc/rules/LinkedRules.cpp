#include "src/ioc/rules/LinkedRules.h"

#include <optional>

#include "common/src/util/Log.h"
#include "src/edr/LinkedPath.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FileRule.h"

namespace zagent::ioc::internal {
namespace {

// What the path of the rule means, if it leads anywhere.
std::optional<std::string> Follow(const edr::EventRule& rule) {
  ZLOG_DEBUG("Adding symlink rule " << rule.GetId());
  std::optional<std::string> target = edr::ResolveLink(rule.GetPath());
  if (target) {
    ZLOG_DEBUG("Adding resolved rule " << rule.GetId() << " with path " << *target);
  } else {
    ZLOG_WARNING("Cannot resolve symlink " << rule.GetPath());
  }
  return target;
}

std::string FreeId(const std::string& id, const std::function<bool(const std::string&)>& is_taken) {
  for (unsigned number = 1;; ++number) {
    std::string free = id + "-" + std::to_string(number);
    if (!is_taken(free)) return free;
  }
}

}  // namespace

Manifest::Rules FollowLinks(const std::shared_ptr<const edr::EventRule>& rule,
                            const std::function<bool(const std::string&)>& is_taken) {
  const auto file_rule = std::dynamic_pointer_cast<const FileRule>(rule);
  if (file_rule == nullptr || !edr::LeadsThroughLink(rule->GetPath())) return {rule};
  const std::string& id = rule->GetId();
  Manifest::Rules rules = {std::make_shared<const FileRule>(*file_rule, FreeId(id, is_taken), rule->GetPath())};
  if (const auto target = Follow(*rule)) rules.push_back(std::make_shared<const FileRule>(*file_rule, id, *target));
  return rules;
}

Manifest::WhitelistRules FollowLinks(const std::shared_ptr<const WhitelistGlobalRule>& rule) {
  Manifest::WhitelistRules rules = {rule};
  if (!edr::LeadsThroughLink(rule->GetPath())) return rules;
  if (const auto target = Follow(*rule)) rules.push_back(std::make_shared<const WhitelistGlobalRule>(*rule, *target));
  return rules;
}

}  // namespace zagent::ioc::internal
