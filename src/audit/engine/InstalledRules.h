#pragma once

#include <compare>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "common/src/util/Clock.h"
#include "src/audit/engine/RuleTable.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/Coverage.h"
#include "src/audit/rules/KernelRules.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {

// The rules of all tags and what the kernel has of them. The caller serialises.
class InstalledRules {
 public:
  explicit InstalledRules(common::util::Clock& clock) : clock_(clock) {}

  // With which rules are made from now on. Before the first rule.
  void SetCoverage(const Coverage& coverage) { coverage_ = coverage; }

  // Replaces the rules of a tag. A rule that stays as it is stays in the kernel, so that nothing is missed meanwhile.
  // One that cannot be installed is logged and does not keep the others out; answers the first failure.
  std::optional<std::string> Replace(AuditSocket& socket, const std::string& tag, edr::EventRuleEngine::Rules rules);
  // Takes all rules out of the kernel; they stay in the table until Clear.
  void DeleteFromAudit(AuditSocket& socket);
  void Clear();

  [[nodiscard]] const RuleTable& Table() const { return table_; }

 private:
  using Rule = RuleTable::Rule;

  struct Address {
    std::string tag;
    RuleKey key;
    auto operator<=>(const Address&) const = default;
  };
  enum class Absence {
    Refused,      // by the kernel, or because it cannot be expressed
    PathMissing,  // there was nothing to watch
  };

  [[nodiscard]] bool Stays(const std::string& tag, const edr::EventRule& rule, const RuleIdentities& listed) const;
  [[nodiscard]] RuleIdentities Kept(const std::string& tag, const std::set<RuleKey>& staying,
                                    const edr::EventRuleEngine::Rules& rules) const;
  void RemoveOthers(AuditSocket& socket, const std::string& tag, const std::set<RuleKey>& staying,
                    const RuleIdentities& kept);
  void Add(AuditSocket& socket, const std::string& tag, const Rule& rule);
  void TellRulesInForce() const;

  common::util::Clock& clock_;
  Coverage coverage_;
  RuleTable table_;
  std::map<Address, Absence> absent_;  // those of the table that are not in force
};

}  // namespace zagent::audit::internal
