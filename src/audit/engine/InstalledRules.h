#pragma once

#include <Poco/Message.h>

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/engine/RulePaths.h"
#include "src/audit/engine/RuleTable.h"
#include "src/audit/engine/WatchedPlace.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/Coverage.h"
#include "src/audit/rules/KernelRules.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit::internal {

// The rules of all tags and what the kernel has of them. The caller serialises. InstalledRules.cpp has how rules come
// and go, InstalledRulesPaths.cpp how what they watch does.
class InstalledRules {
 public:
  explicit InstalledRules(common::util::Clock& clock) : clock_(clock) {}

  // With which rules are made from now on. Before the first rule.
  void SetCoverage(const Coverage& coverage) { coverage_ = coverage; }

  // A rule that has come into force.
  struct Renewed {
    RuleTable::Rule rule;
    bool is_new;  // what is at the path now was not there when the rule was last in force, or was unheard for a while
  };
  struct Replacement {
    std::optional<edr::RuleEngineException> failure;  // the first one, with all refusals
    std::vector<Renewed> renewed;  // whose path has come into being while they were awaited, or holds something new
  };

  // Where rules need something to be: whoever replaces rules looks there first, without the caller's lock. What takes
  // another one's place after that look is noticed by the next one.
  [[nodiscard]] static std::vector<WatchedPlace> PlacesOf(const edr::EventRuleEngine::Rules& rules);
  // Replaces the rules of a tag. A rule that stays as it is stays in the kernel, so that nothing is missed meanwhile.
  // One that cannot be installed is logged and does not keep the others out. What an earlier rule of the same key knew
  // of its path, its successor there knows, over Clear too. Links are followed as by Renew, when all rules are there.
  Replacement Replace(AuditSocket& socket, const std::string& tag, edr::EventRuleEngine::Rules rules,
                      const std::vector<Sight>& sights);
  // Takes all rules out of the kernel; they stay in the table until Clear, which comes next if anything does.
  void DeleteFromAudit(AuditSocket& socket);
  void Clear();

  [[nodiscard]] const RuleTable& Table() const { return table_; }

  // What lay at this path and below it is not there any more: it was removed or renamed, and may come back as it was.
  // True when a rule is not in force any more for that, which is told.
  bool NotePathGone(const std::string& path);
  // The kernel says that it has dropped the rules with this key (as the records tell it) on this path. True when this
  // is news: its word may come late, when the rule was added anew already. So the kernel is asked, on a socket of its
  // own; who cannot ask believes.
  bool NoteRuleGone(AuditNetlink& netlink, const std::string& key, const std::string& path);

  // Whether there are rules of files or folders.
  [[nodiscard]] bool HasPaths() const { return paths_.GetSize() != 0; }

  // Places to look at (LookAt), without the caller's lock; what was seen goes to Judge, and then to Renew. A place that
  // is awaited is one of rules that are not in force: what they watch was there once, or was not when they came and
  // coverage is extended.
  [[nodiscard]] std::vector<WatchedPlace> AwaitedPlaces(const std::string& at_or_below = "/") const;
  // A sixtieth of all places, and each time the next ones.
  [[nodiscard]] std::vector<WatchedPlace> NextPlaces();
  // Rules whose place is empty, or taken by another object than when they came into force, are not in force any more.
  // Where only the kernel knows whether it is another one, it is asked, as by NoteRuleGone. A rule of which nothing was
  // seen when it came into force watches what is seen first. True when Renew has something to do.
  bool Judge(AuditNetlink& netlink, const std::vector<Sight>& sights);
  // Puts awaited rules into force where something was seen. The kernel takes all its rules of one path for one, as long
  // as it has any: where they hold on to another object than the one that is there now, they all go before the first
  // one is added, and what is made in between is found by whoever looks for what is new. Where they still hold on to
  // the right one nothing is taken away.
  //
  // Where a link stands in the place of a folder, the rule is in force for the link and for the folder that it leads
  // to, unless another rule of the tag stands there.
  //
  // A rule that the kernel refuses, or that cannot be made now, is tried again by the next call; of refusals in a row
  // only the first is told above Debug.
  std::vector<Renewed> Renew(AuditSocket& socket, const std::vector<Sight>& sights);

 private:
  using Rule = RuleTable::Rule;

  struct Absence {
    enum class Reason {
      Refused,     // by the kernel when it was added, which whoever added it has been told
      NeverThere,  // there was nothing to watch
      Gone,        // what it watched went, was dropped or is elsewhere; the kernel's rule may have gone along
    };
    Reason reason;
    bool is_refusal_told = false;
  };

  // What a rule knew of its path that is not in the table any more.
  struct Memory {
    std::string path;                     // tidy
    std::optional<WatchedObject> object;  // what it watched, or did when it was last in force
    bool is_heard;                        // as far as anybody knew, the kernel had the rule to the end
    bool was_in_kernel;                   // it did: what it watched was the same to the end, whatever its birth
  };
  using Sights = std::map<WatchedPlace, Sight>;

  [[nodiscard]] bool IsLookedFor(const RuleAddress& address) const;
  void Remember(const RuleAddress& address, const edr::EventRule& rule, bool is_in_kernel);
  // Nothing when the kernel cannot be asked.
  [[nodiscard]] std::optional<bool> IsInKernel(AuditNetlink& netlink, const RuleAddress& address) const;
  void LearnFirstSight(const RuleAddress& address, const Sight& sight);
  bool IsAnother(AuditNetlink& netlink, const RuleAddress& address, const Sight& sight);
  bool Lose(const RuleAddress& address);
  [[nodiscard]] bool IsElsewhere(const RuleAddress& address, const Sight& sight) const;
  [[nodiscard]] bool HasAnotherAt(const std::optional<std::string>& target, const RuleAddress& address) const;
  std::optional<Outcome> PutIntoForce(AuditSocket& socket, const RuleAddress& address, const Sight& sight);
  void AddAtTarget(AuditSocket& socket, const RuleAddress& address, const Rule& rule, const WatchedObject& object,
                   Poco::Message::Priority priority);
  void AddAtTargetsOf(AuditSocket& socket, const std::string& tag);
  // True when the kernel had all of the rule where it is written.
  bool DeleteFromKernel(AuditSocket& socket, const RuleAddress& address, const RuleIdentities& kept = {});
  [[nodiscard]] bool Stays(const std::string& tag, const edr::EventRule& rule, const RuleIdentities& listed) const;
  [[nodiscard]] RuleIdentities Kept(const std::string& tag, const std::set<RuleKey>& staying,
                                    const edr::EventRuleEngine::Rules& rules) const;
  void RemoveOthers(AuditSocket& socket, const std::string& tag, const std::set<RuleKey>& staying,
                    const RuleIdentities& kept, const RuleIdentities& listed);
  void ReleaseProcessNames(const std::string& tag, const std::set<RuleKey>& staying);
  [[nodiscard]] static bool IsAnotherThan(const Memory& memory, const WatchedObject& object);
  std::optional<Renewed> Add(AuditSocket& socket, const std::string& tag, const Rule& rule, const Sights& sights);
  void TellRulesInForce() const;

  common::util::Clock& clock_;
  Coverage coverage_;
  RuleTable table_;
  RulePaths paths_;                               // those of the table
  std::map<RuleAddress, Absence> absent_;         // those of the table that are not in force
  std::map<RuleAddress, WatchedObject> watched_;  // what was at the path when the rule came into force
  std::map<RuleAddress, Memory> remembered_;      // of rules whose tag's next rules may take their place
  std::map<RuleAddress, Rule> at_target_;         // rules of which the kernel has a second set, for where a link leads
  std::string looked_at_;                         // the path that NextPlaces came to
};

}  // namespace zagent::audit::internal
