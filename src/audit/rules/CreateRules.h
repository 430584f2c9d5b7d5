#pragma once

#include <string>
#include <vector>

#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/Coverage.h"
#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// The kernel rules that let the events of a rule be heard, each with the rule's id as key. Of a file or directory rule:
// at most one for reading, limited to processes with a login session, and one for writing and attribute changes; behind
// them those of extended coverage. Of a process or network rule: one for all its calls.
//
// Throws edr::RuleEngineException when the rule cannot be expressed: an unknown type, no action, a path or an id that
// the kernel does not take.
std::vector<AuditRule> CreateRules(const edr::EventRule& rule, const Coverage& coverage = {});

}  // namespace zagent::audit::internal
