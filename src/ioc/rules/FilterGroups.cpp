#include "src/ioc/rules/FilterGroups.h"

#include <algorithm>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

bool HoldsOrCannotTell(const edr::FilterCriteria& criterion, const edr::Event& event) {
  try {
    return criterion.Match(event);
  } catch (const edr::FilterCriteriaException& error) {
    ZLOG_DEBUG("Event ID " << event.GetId() << ": " << error.what());
    return true;
  }
}

}  // namespace

bool Holds(const FilterGroup& group, const edr::Event& event) {
  return std::all_of(group.begin(), group.end(),
                     [&](const auto& criterion) { return HoldsOrCannotTell(*criterion, event); });
}

bool AnyHolds(const FilterGroups& groups, const edr::Event& event) {
  return std::any_of(groups.begin(), groups.end(), [&](const FilterGroup& group) { return Holds(group, event); });
}

bool RuleFilters::Excludes(const edr::Event& event) const {
  ZLOG_DEBUG("Matching exclusion criterias");
  const bool excludes = AnyHolds(exclusion, event);
  ZLOG_DEBUG((excludes ? "Exclusion criteria matched" : "Exclusion filters not matched"));
  return excludes;
}

bool RuleFilters::Includes(const edr::Event& event) const {
  if (inclusion.empty()) return true;
  const bool includes = AnyHolds(inclusion, event);
  if (includes) ZLOG_DEBUG("Inclusion criteria matched");
  return includes;
}

edr::MatchResult RuleFilters::Match(const edr::Event& event) const {
  if (Excludes(event)) return edr::MatchResult::RefusedByFilter;
  ZLOG_DEBUG("Matching inclusion criterias");
  return Includes(event) ? edr::MatchResult::Matched : edr::MatchResult::RefusedByFilter;
}

}  // namespace zagent::ioc::internal
