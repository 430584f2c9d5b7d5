#include "src/audit/rules/CreateRules.h"

#include <libaudit.h>

#include <array>
#include <cstdint>
#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/rules/Exclusions.h"
#include "src/audit/rules/ExtendedRules.h"
#include "src/audit/rules/SyscallRules.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::ObjectType;
using edr::RuleEngineException;

// Reading has a rule of its own.
constexpr std::array<std::pair<EventType, std::uint32_t>, 5> kWatchPermissions = {{
    {EventType::Create, AUDIT_PERM_WRITE},
    {EventType::Delete, AUDIT_PERM_WRITE},
    {EventType::Write, AUDIT_PERM_WRITE},
    {EventType::Rename, AUDIT_PERM_WRITE},
    {EventType::AttributeChange, AUDIT_PERM_ATTR},
}};

void AddPathToRule(const edr::EventRule& rule, AuditRule& target) {
  const std::string failed = rule.GetPath() + " to rule id " + rule.GetId();
  switch (rule.GetType()) {
    case ObjectType::File:
      if (!target.WatchFile(rule.GetPath())) throw RuleEngineException("AddPathToRule: Failed to add file " + failed);
      return;
    case ObjectType::Directory:
      if (!target.WatchDirectory(rule.GetPath())) {
        throw RuleEngineException("AddPathToRule: Failed to add directory " + failed);
      }
      return;
    default:
      throw RuleEngineException("AddPathToRule: Cannot add path to rule id " + rule.GetId() +
                                " as type is unsupported");
  }
}

void AddPermsToRule(const edr::EventRule& rule, std::uint32_t permissions, AuditRule& target) {
  ZLOG_TRACE("AddPermsToRule: Adding watch permissions to path " << rule.GetPath());
  if (!target.SetPermissions(permissions)) {
    throw RuleEngineException("AddPermsToRule: Failed to add watch permissions for path " + rule.GetPath());
  }
}

AuditRule CreateWatch(const edr::EventRule& rule, std::uint32_t permissions) {
  AuditRule watch;
  AddPathToRule(rule, watch);
  AddPermsToRule(rule, permissions, watch);
  return watch;
}

std::vector<AuditRule> AddPathRules(const edr::EventRule& rule) {
  ZLOG_TRACE("AddPathRules: Creating path rules for rule id " << rule.GetId());
  const edr::EventTypes types = edr::EventTypesOf(rule);
  std::vector<AuditRule> rules;
  if (types.count(EventType::Read) != 0) {
    AuditRule read = CreateWatch(rule, AUDIT_PERM_READ);
    // Daemons read all day long: only what belongs to a login session is heard.
    if (!read.AddField("auid!=4294967295")) {
      throw RuleEngineException("AddPathRules: Failed to limit reading to login sessions for rule id " + rule.GetId());
    }
    rules.push_back(std::move(read));
  }

  std::uint32_t permissions = 0;
  for (const auto& [type, permission] : kWatchPermissions) {
    if (types.count(type) != 0) permissions |= permission;
  }
  if (permissions != 0) {
    ZLOG_TRACE("AddPathRules: Creating write/attribute rules for rule id " << rule.GetId());
    rules.push_back(CreateWatch(rule, permissions));
  }
  if (rules.empty()) {
    throw RuleEngineException("AddPathRules: Failed to add rule without actions: " + rule.GetId());
  }
  return rules;
}

std::vector<AuditRule> CreateRulesWithoutKey(const edr::EventRule& rule, const Coverage& coverage) {
  switch (rule.GetType()) {
    case ObjectType::Network:
      return AddNetworkRules(rule);
    case ObjectType::Process:
      return AddProcessRules(rule, coverage);
    case ObjectType::File:
    case ObjectType::Directory: {
      std::vector<AuditRule> rules = AddPathRules(rule);
      for (AuditRule& extended : CreateExtendedRules(rule, coverage)) rules.push_back(std::move(extended));
      return rules;
    }
  }
  throw RuleEngineException("CreateRules: Unsupported rule type for rule id " + rule.GetId());
}

void AddKeyToRule(const std::string& id, AuditRule& target) {
  ZLOG_TRACE("CreateRules: Adding " << id << " to rule");
  const char* objection = Exclusions::IsReservedKey(id) ? "it is reserved" : AuditRule::WhyRefused(id);
  if (objection != nullptr) {
    throw RuleEngineException("CreateRules: Failed to add key for rule id " + id + ": " + objection);
  }
  if (!target.AddKey(id)) throw RuleEngineException("CreateRules: Failed to add key for rule id " + id);
}

}  // namespace

std::vector<AuditRule> CreateRules(const edr::EventRule& rule, const Coverage& coverage) {
  ZLOG_TRACE("CreateRules: Creating rule with ID " << rule.GetId());
  std::vector<AuditRule> rules = CreateRulesWithoutKey(rule, coverage);
  for (AuditRule& created : rules) AddKeyToRule(rule.GetId(), created);
  return rules;
}

}  // namespace zagent::audit::internal
