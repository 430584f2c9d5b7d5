#pragma once

#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/Coverage.h"
#include "src/edr/EventRule.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {

// As much of a rule's id as is compared with the keys of the kernel's rules: the length of a UUID. The whole id is
// installed.
std::string ComparedPart(const std::string& id);

// Adds what CreateRules made of `rule`. A rule that is there already, or whose path is not (it may come later,
// through a new configuration), counts as done. Throws edr::RuleEngineException "Failed to add rule to audit
// subsystem".
void AddRuleToAudit(AuditSocket& socket, const edr::EventRule& rule, std::vector<AuditRule>& created);

// Takes a rule's kernel rules away again, with the coverage that they were made with. Failures are logged.
void DeleteRuleFromAudit(AuditSocket& socket, const edr::EventRule& rule, const Coverage& coverage = {});

// Takes away every kernel rule that carries the id of one of `rules`, whoever left it there.
void DeleteDuplicateRules(AuditSocket& socket, const edr::EventRuleEngine::Rules& rules);

}  // namespace zagent::audit::internal
