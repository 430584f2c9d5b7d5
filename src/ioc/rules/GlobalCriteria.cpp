#include "src/ioc/rules/GlobalCriteria.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

GlobalCriteria::GlobalCriteria(Group group, std::vector<edr::PathGlob> patterns, const TtlProcessTree& tree)
    : FilterCriteria(group, std::move(patterns)), tree_(tree) {
  ZLOG_DEBUG("Setting parentProcess patterns");
}

bool GlobalCriteria::Match(const edr::Event& event) const {
  if (GetPatterns().empty()) return true;
  const std::int32_t parent = event.GetActorParentProcessId();
  if (parent < 1) return false;
  const std::map<std::int32_t, std::string> ancestors = tree_.GetAncestors(parent);
  return std::any_of(ancestors.begin(), ancestors.end(),
                     [&](const auto& ancestor) { return MatchesAny(edr::LexicallyNormal(ancestor.second)); });
}

}  // namespace zagent::ioc::internal
