#pragma once

#include <vector>

#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/Coverage.h"
#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// The one kernel rule of a rule of type Process or Network, without a key: all calls that its actions stand for, each
// once, so that the kernel has few rules to look at. Actions that no call stands for are told in a warning.
//
// With extended coverage a start by execveat is heard, too. Throws edr::RuleEngineException as CreateRules.
std::vector<AuditRule> AddProcessRules(const edr::EventRule& rule, const Coverage& coverage);
std::vector<AuditRule> AddNetworkRules(const edr::EventRule& rule);

}  // namespace zagent::audit::internal
