#pragma once

#include <cstdint>

#include "common/src/util/Json.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/FilterGroups.h"

namespace zagent::ioc::internal {

// Decides which words a `filterType` may have; others are passed over.
enum class RuleKind : std::uint8_t { Path, Process, Network, Global };  // Path: of a file or directory

// The sections "inclusionFilters" and "exclusionFilters" of a rule. Throw RuleFault. `tree` outlives the filters.
FilterGroups ParseInclusionFilters(const rapidjson::Value& rule, RuleKind kind, const TtlProcessTree& tree);
FilterGroups ParseExclusionFilters(const rapidjson::Value& rule, RuleKind kind, const TtlProcessTree& tree);

}  // namespace zagent::ioc::internal
