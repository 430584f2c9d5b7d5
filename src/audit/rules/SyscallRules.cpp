#include "src/audit/rules/SyscallRules.h"

#include <string>

#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::RuleEngineException;
using Calls = std::vector<const char*>;

// Empty for a type that is not of this kind.
Calls ProcessCallsOf(EventType type, const Coverage& coverage) {
  switch (type) {
    case EventType::ProcessStart:
      return coverage.extended ? Calls{"execve", "execveat"} : Calls{"execve"};
    case EventType::ProcessClone:
      return {"clone", "fork", "vfork"};
    case EventType::ProcessExit:
      return {"exit_group"};
    default:
      return {};
  }
}

Calls NetworkCallsOf(EventType type) {
  switch (type) {
    case EventType::Bind:
      return {"bind"};
    case EventType::Connect:
      return {"connect"};
    case EventType::Accept:
      return {"accept"};
    default:
      return {};
  }
}

void AddSyscalls(const Calls& calls, AuditRule& target) {
  if (!target.AddField("arch=b64")) throw RuleEngineException("AddSyscalls: Failed to add 'arch'");
  for (const char* call : calls) {
    ZLOG_TRACE("AddSyscalls: Adding syscall '" << call << "'");
    if (!target.AddSyscall(call)) {
      throw RuleEngineException(std::string("AddSyscalls: Failed to add syscall '") + call + "'");
    }
  }
}

std::vector<AuditRule> RuleOf(const Calls& calls) {
  std::vector<AuditRule> rules(1);
  AddSyscalls(calls, rules.front());
  return rules;
}

}  // namespace

std::vector<AuditRule> AddProcessRules(const edr::EventRule& rule, const Coverage& coverage) {
  ZLOG_TRACE("AddProcessRules: Creating process rules for rule ID " << rule.GetId());
  Calls calls;
  for (const EventType type : edr::EventTypesOf(rule)) {
    const Calls of_type = ProcessCallsOf(type, coverage);
    if (of_type.empty()) ZLOG_WARNING("AddProcessRules: Unsupported action " << static_cast<int>(type));
    calls.insert(calls.end(), of_type.begin(), of_type.end());
  }
  return RuleOf(calls);
}

std::vector<AuditRule> AddNetworkRules(const edr::EventRule& rule) {
  ZLOG_TRACE("AddNetworkRules: Creating network rules for rule id " << rule.GetId());
  Calls calls;
  for (const EventType type : edr::EventTypesOf(rule)) {
    const Calls of_type = NetworkCallsOf(type);
    if (of_type.empty()) ZLOG_WARNING("AddNetworkRules: Unsupported network action " << static_cast<int>(type));
    calls.insert(calls.end(), of_type.begin(), of_type.end());
  }
  return RuleOf(calls);
}

}  // namespace zagent::audit::internal
