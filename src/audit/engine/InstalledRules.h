#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/engine/RulePaths.h"
#include "src/audit/engine/RuleTable.h"
#include "src/audit/events/FileIdentity.h"
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

  // What lay at this path and below it is not there any more: it was removed, or renamed and may come back as it was.
  // True when a rule is not in force any more for that, which is told.
  bool NotePathGone(const std::string& path, bool is_renamed);
  // The kernel has dropped the rules with this key (as the records tell it) on this path. True when this is news.
  bool NoteRuleGone(const std::string& key, const std::string& path);

  // Whether Renew may find something to do at this path or below it.
  [[nodiscard]] bool IsMissingAtOrBelow(const std::string& path) const;
  // Whether a path is looked for: one that was there once, or was not when its rule came and coverage is extended.
  [[nodiscard]] bool IsLookingForPaths() const;
  // A rule whose path has come into being.
  struct Renewed {
    RuleTable::Rule rule;
    bool is_new;  // what is at the path now was not there when the rule was last in force
  };
  // Whether something has come to a path that is looked for. Asks the disk.
  [[nodiscard]] bool HasReturned() const;
  // Puts those rules into force. A rule that the kernel refuses, or that cannot be made now, is tried again by the next
  // call; of refusals in a row only the first is told above Debug.
  std::vector<Renewed> Renew(AuditSocket& socket);

 private:
  using Rule = RuleTable::Rule;

  struct Absence {
    enum class Reason {
      Refused,     // by the kernel when it was added, which whoever added it has been told
      NeverThere,  // there was nothing to watch
      Dropped,     // by the kernel, together with what it watched
      Moved,       // what it watches is elsewhere, or nowhere; the kernel's rule may have gone along
    };
    Reason reason;
    bool is_refusal_told = false;
  };

  [[nodiscard]] bool IsLookedFor(const Absence& absence) const;
  bool Lose(const RuleAddress& address, Absence::Reason reason);
  [[nodiscard]] bool Stays(const std::string& tag, const edr::EventRule& rule, const RuleIdentities& listed) const;
  [[nodiscard]] RuleIdentities Kept(const std::string& tag, const std::set<RuleKey>& staying,
                                    const edr::EventRuleEngine::Rules& rules) const;
  void RemoveOthers(AuditSocket& socket, const std::string& tag, const std::set<RuleKey>& staying,
                    const RuleIdentities& kept);
  void ReleaseProcessNames(const std::string& tag, const std::set<RuleKey>& staying);
  void Add(AuditSocket& socket, const std::string& tag, const Rule& rule);
  void TellRulesInForce() const;

  common::util::Clock& clock_;
  Coverage coverage_;
  RuleTable table_;
  RulePaths paths_;                              // those of the table
  std::map<RuleAddress, Absence> absent_;        // those of the table that are not in force
  std::map<RuleAddress, FileIdentity> watched_;  // what was at the path when the rule came into force
};

}  // namespace zagent::audit::internal
