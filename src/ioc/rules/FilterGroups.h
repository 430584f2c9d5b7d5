#pragma once

#include <memory>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/EventRule.h"
#include "src/edr/FilterCriteria.h"

namespace zagent::ioc::internal {

// Criteria that hold together. One that cannot be answered for an event is logged and counts as one that holds, and a
// group without criteria holds for every event.
using FilterGroup = std::vector<std::shared_ptr<const edr::FilterCriteria>>;
using FilterGroups = std::vector<FilterGroup>;

[[nodiscard]] bool Holds(const FilterGroup& group, const edr::Event& event);
[[nodiscard]] bool AnyHolds(const FilterGroups& groups, const edr::Event& event);

// The filters of a rule: first what is excluded, then what is included. Without inclusion groups everything is.
struct RuleFilters {
  FilterGroups inclusion;
  FilterGroups exclusion;

  [[nodiscard]] bool Excludes(const edr::Event& event) const;
  [[nodiscard]] bool Includes(const edr::Event& event) const;
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const;
};

}  // namespace zagent::ioc::internal
