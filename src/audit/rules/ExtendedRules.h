#pragma once

#include <vector>

#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/Coverage.h"
#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// Kernel rules for what a watch on the path of a rule of type File or Directory does not tell, as far as the rule's
// actions want it; without a key. In this order:
//
//   the calls that set a file's times, fchmodat2, which older kernels count under no permission, and opening by handle;
//   open with O_CREAT or O_TRUNC, and openat: a watch for writing looks at the access mode alone;
//   on the list of io_uring, the operations that do what the watched calls do.
//
// Empty without extended coverage. Throws edr::RuleEngineException as CreateRules.
std::vector<AuditRule> CreateExtendedRules(const edr::EventRule& rule, const Coverage& coverage);

}  // namespace zagent::audit::internal
