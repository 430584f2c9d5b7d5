#pragma once

#include <string>

#include "src/audit/rules/AuditRule.h"

namespace zagent::manifest_check {

// A watch of the kernel's as auditctl would be told to make it:
//   -a always,exit -F dir=/etc -F perm=r -F auid!=unset -F key=r1
std::string KernelRuleText(audit::internal::AuditRule& rule);

}  // namespace zagent::manifest_check
