#pragma once

#include <Poco/Message.h>

#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/Coverage.h"
#include "src/edr/EventRule.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {

// As much of a rule's id as is compared with the keys of the kernel's rules: the length of a UUID. The whole id is
// installed.
std::string ComparedPart(const std::string& id);

// What the kernel takes two rules for one by (AuditRule::Identity).
using RuleIdentities = std::set<std::string>;

// The kernel rules of a rule; none for one that cannot be expressed.
RuleIdentities IdentitiesOf(const edr::EventRule& rule, const Coverage& coverage);

enum class Outcome {
  Added,        // or a part of it, the rest being there
  WasThere,     // as a whole
  PathMissing,  // the kernel has nothing to watch: it may come later
};

// Whether this errno says that there is nothing at a path: it, or a folder on the way to it, is missing, or is another
// kind of thing.
bool IsPathMissing(int error);

// Adds what CreateRules made of `rule`. A rule that is there already, or whose path is not, counts as done. Throws
// edr::RuleEngineException "Failed to add rule to audit subsystem", after the kernel's reason was logged at `priority`.
// Of a rule that cannot be added as a whole nothing stays that was not there before.
Outcome AddRuleToAudit(AuditSocket& socket, const edr::EventRule& rule, std::vector<AuditRule>& created,
                       Poco::Message::Priority priority = Poco::Message::PRIO_ERROR);

// Whether the kernel has a rule as a whole: it is asked to add it. Leaves it as it is.
bool HasInKernel(AuditSocket& socket, const edr::EventRule& rule, const Coverage& coverage);

// Takes a rule's kernel rules away again, with the coverage that they were made with; not those of `kept`, which stand
// for another rule too. Failures are logged. True when the kernel had all that was to be taken away.
bool DeleteRuleFromAudit(AuditSocket& socket, const edr::EventRule& rule, const Coverage& coverage = {},
                         const RuleIdentities& kept = {});

// Takes away every kernel rule that carries the id of one of `rules`, whoever left it there, except for those of
// `kept`.
void DeleteDuplicateRules(AuditSocket& socket, const edr::EventRuleEngine::Rules& rules,
                          const RuleIdentities& kept = {}, common::util::Clock& clock = common::util::Clock::Real());

}  // namespace zagent::audit::internal
