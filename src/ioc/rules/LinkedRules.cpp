#include "src/ioc/rules/LinkedRules.h"

#include "common/src/util/Log.h"
#include "src/edr/LinkedPath.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FileRule.h"

namespace zagent::ioc::internal {

Manifest::Rules FollowLinks(const std::shared_ptr<const edr::EventRule>& rule) {
  const auto file_rule = std::dynamic_pointer_cast<const FileRule>(rule);
  if (file_rule == nullptr || !edr::LeadsThroughLink(rule->GetPath())) {
    ZLOG_DEBUG("Adding rule " << rule->GetId());
    return {rule};
  }
  const std::string& id = rule->GetId();
  ZLOG_DEBUG("Adding symlink rule " << id);
  Manifest::Rules rules = {std::make_shared<const FileRule>(*file_rule, id + "-1", rule->GetPath())};
  if (const std::optional<std::string> target = edr::ResolveLink(rule->GetPath())) {
    ZLOG_DEBUG("Adding resolved rule " << id << " with path " << *target);
    rules.push_back(std::make_shared<const FileRule>(*file_rule, id, *target));
  } else {
    ZLOG_WARNING("Cannot resolve symlink " << rule->GetPath());
  }
  return rules;
}

}  // namespace zagent::ioc::internal
