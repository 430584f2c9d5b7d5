#include "src/audit/rules/KernelRules.h"

#include <cerrno>
#include <exception>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/Progress.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;

constexpr std::size_t kComparedLength = 36;

bool DeleteCreatedRule(AuditSocket& socket, const std::string& id, AuditRule& created) {
  const int error = socket.Delete(created);
  if (error == 0) {
    ZLOG_DEBUG("RuleEngine::DeleteRuleFromAudit: Deleted rule with ID " << id);
    return true;
  }
  // It never went in, or the kernel has dropped it together with the watched folder: no reason for a warning.
  const auto priority = error == ENOENT ? Poco::Message::PRIO_DEBUG : Poco::Message::PRIO_WARNING;
  ZLOG_AT(priority, "RuleEngine::DeleteRuleFromAudit: Failed to delete old rule " << id << ": " << ErrnoText(error));
  return false;
}

// What went in before the rest of the rule was refused.
void TakeBack(AuditSocket& socket, const std::string& id, const std::vector<AuditRule*>& added) {
  for (AuditRule* kernel_rule : added) DeleteCreatedRule(socket, id, *kernel_rule);
}

}  // namespace

std::string ComparedPart(const std::string& id) {
  return id.substr(0, kComparedLength);
}

RuleIdentities IdentitiesOf(const edr::EventRule& rule, const Coverage& coverage) {
  RuleIdentities identities;
  try {
    for (const AuditRule& created : CreateRules(rule, coverage)) identities.insert(created.Identity());
  } catch (const std::runtime_error& error) {
    ZLOG_TRACE("Rule " << rule.GetId() << " has no kernel rules: " << error.what());
    identities.clear();
  }
  return identities;
}

bool IsPathMissing(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

Outcome AddRuleToAudit(AuditSocket& socket, const edr::EventRule& rule, std::vector<AuditRule>& created,
                       Poco::Message::Priority priority) {
  ZLOG_TRACE("RuleEngine::AddRuleToAudit: Adding rule with ID " << rule.GetId());
  std::vector<AuditRule*> added;
  bool is_path_missing = false;
  for (AuditRule& kernel_rule : created) {
    const int error = socket.Add(kernel_rule);
    if (error == 0) {
      added.push_back(&kernel_rule);
    } else if (error == EEXIST) {
      ZLOG_DEBUG("Rule " << rule.GetId() << " already exists");
    } else if (IsPathMissing(error)) {
      ZLOG_DEBUG("Ignoring rule " << rule.GetId() << " as path " << rule.GetPath() << " does not exist");
      is_path_missing = true;
    } else {
      ZLOG_AT(priority, "RuleEngine::AddRuleToAudit: Failed to add rule to audit subsystem: " << ErrnoText(error));
      TakeBack(socket, rule.GetId(), added);
      throw edr::RuleEngineException("Failed to add rule to audit subsystem");
    }
  }
  if (is_path_missing) {
    TakeBack(socket, rule.GetId(), added);
    return Outcome::PathMissing;
  }
  if (added.empty()) return Outcome::WasThere;
  ZLOG_DEBUG("Added rule " << rule.GetId() << " to the audit subsytem");
  return Outcome::Added;
}

bool HasInKernel(AuditSocket& socket, const edr::EventRule& rule, const Coverage& coverage) {
  try {
    std::vector<AuditRule> created = CreateRules(rule, coverage);
    for (AuditRule& kernel_rule : created) {
      const int error = socket.Add(kernel_rule);
      if (error == 0) DeleteCreatedRule(socket, rule.GetId(), kernel_rule);
      if (error != EEXIST) return false;
    }
    return !created.empty();
  } catch (const std::runtime_error& error) {
    ZLOG_DEBUG("Failed to look for rule " << rule.GetId() << ": " << error.what());
    return false;
  }
}

bool DeleteRuleFromAudit(AuditSocket& socket, const edr::EventRule& rule, const Coverage& coverage,
                         const RuleIdentities& kept) {
  ZLOG_TRACE("RuleEngine::DeleteRuleFromAudit: Deleting rule with ID " << rule.GetId());
  bool had_all = true;
  try {
    for (AuditRule& created : CreateRules(rule, coverage)) {
      if (kept.count(created.Identity()) == 0) had_all = DeleteCreatedRule(socket, rule.GetId(), created) && had_all;
    }
  } catch (const std::exception& error) {
    ZLOG_WARNING("RuleEngine::DeleteRuleFromAudit: Failed to delete old rule " << rule.GetId() << ": " << error.what());
    had_all = false;
  }
  return had_all;
}

void DeleteDuplicateRules(AuditSocket& socket, const edr::EventRuleEngine::Rules& rules, const RuleIdentities& kept,
                          common::util::Clock& clock) {
  ZLOG_DEBUG("RuleEngine::DeleteDuplicateRules: Deleting duplicate rules");
  std::set<std::string> ids;
  for (const auto& rule : rules) ids.insert(ComparedPart(rule->GetId()));
  std::vector<AuditRule> duplicates = socket.GetRulesFromAudit();
  std::erase_if(duplicates, [&](const AuditRule& listed) {
    const std::string key = listed.GetKey();
    return key.empty() || ids.count(ComparedPart(key)) == 0 || kept.count(listed.Identity()) != 0;
  });
  Progress progress(clock, "RuleEngine::DeleteDuplicateRules: Deleted", duplicates.size());
  for (AuditRule& duplicate : duplicates) {
    const int error = socket.Delete(duplicate);
    if (error == 0) {
      ZLOG_DEBUG("RuleEngine::DeleteDuplicateRules: Deleted old rule " << duplicate.GetKey());
    } else {
      ZLOG_ERROR("RuleEngine::DeleteDuplicateRules: Failed to delete old rule " << duplicate.GetKey() << ": "
                                                                                << ErrnoText(error));
    }
    progress.Step();
  }
}

}  // namespace zagent::audit::internal
