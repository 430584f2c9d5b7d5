#include "src/audit/engine/InstalledRules.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/Log.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/Progress.h"

namespace zagent::audit::internal {
namespace {

using edr::RuleEngineException;

[[noreturn]] void RefuseSecond(const edr::EventRule& rule) {
  if (rule.GetType() == edr::ObjectType::Process) {
    throw RuleEngineException("Cannot add more than 1 process rule for '" + rule.GetName() + "'");
  }
  throw RuleEngineException("Cannot add more than 1 rule with id '" + rule.GetId() + "'");
}

}  // namespace

// Somebody else may have taken the kernel's rules away: a rule stays only where the kernel has it.
bool InstalledRules::Stays(const std::string& tag, const edr::EventRule& rule, const RuleIdentities& listed) const {
  const RuleKey key = RuleKey::Of(rule);
  const Rule old = table_.Find(tag, key);
  if (!old || absent_.count({tag, key}) != 0) return false;
  const RuleIdentities wanted = IdentitiesOf(rule, coverage_);
  if (wanted.empty() || !std::includes(listed.begin(), listed.end(), wanted.begin(), wanted.end())) return false;
  return old.get() == &rule || wanted == IdentitiesOf(*old, coverage_);
}

// Two tags may use one id, and then the kernel's rules of both go by the same key.
RuleIdentities InstalledRules::Kept(const std::string& tag, const std::set<RuleKey>& staying,
                                    const edr::EventRuleEngine::Rules& rules) const {
  std::set<std::string> touched;
  for (const auto& rule : rules) touched.insert(ComparedPart(rule->GetId()));
  const auto of_tag = table_.GetRules().find(tag);
  if (of_tag != table_.GetRules().end()) {
    for (const auto& [key, rule] : of_tag->second) touched.insert(ComparedPart(key.id));
  }
  RuleIdentities kept;
  for (const auto& [other_tag, others] : table_.GetRules()) {
    for (const auto& [key, rule] : others) {
      if (touched.count(ComparedPart(key.id)) == 0) continue;
      if (other_tag == tag && staying.count(key) == 0) continue;
      if (absent_.count({other_tag, key}) != 0) continue;
      kept.merge(IdentitiesOf(*rule, coverage_));
      const auto at_target = at_target_.find({other_tag, key});
      if (at_target != at_target_.end()) kept.merge(IdentitiesOf(*at_target->second, coverage_));
    }
  }
  return kept;
}

std::vector<WatchedPlace> InstalledRules::PlacesOf(const edr::EventRuleEngine::Rules& rules) {
  std::set<WatchedPlace> places;
  for (const auto& rule : rules) {
    if (RulePaths::Takes(rule->GetType())) places.insert({rule->GetType(), RulePaths::Tidy(rule->GetPath())});
  }
  return {places.begin(), places.end()};
}

InstalledRules::Replacement InstalledRules::Replace(AuditSocket& socket, const std::string& tag,
                                                    edr::EventRuleEngine::Rules rules,
                                                    const std::vector<Sight>& sights) {
  Sights by_place;
  for (const Sight& sight : sights) by_place.emplace(sight.place, sight);
  std::sort(rules.begin(), rules.end(), [](const auto& a, const auto& b) { return a->GetId() < b->GetId(); });
  RuleIdentities listed;
  for (const AuditRule& rule : socket.GetRulesFromAudit()) listed.insert(rule.Identity());
  std::set<RuleKey> staying;
  std::set<std::string> process_names;
  for (const auto& rule : rules) {
    const bool is_process = rule->GetType() == edr::ObjectType::Process;
    if (is_process && !process_names.insert(rule->GetName()).second) continue;  // is refused below
    if (Stays(tag, *rule, listed)) staying.insert(RuleKey::Of(*rule));
  }
  const RuleIdentities kept = Kept(tag, staying, rules);
  DeleteDuplicateRules(socket, rules, kept, clock_);
  RemoveOthers(socket, tag, staying, kept, listed);
  ReleaseProcessNames(tag, staying);

  Replacement replacement;
  std::string first_failure;
  RuleEngineException::Refusals refusals;
  std::set<RuleKey> seen;
  Progress progress(clock_, "RuleEngine::AddRules: Added", rules.size());
  for (const auto& rule : rules) {
    try {
      const RuleKey key = RuleKey::Of(*rule);
      if (!seen.insert(key).second) RefuseSecond(*rule);
      if (staying.count(key) != 0) {
        table_.Insert(tag, rule);
      } else if (std::optional<Renewed> renewed = Add(socket, tag, rule, by_place)) {
        replacement.renewed.push_back(std::move(*renewed));
      }
      ZLOG_DEBUG("RuleEngine::AddRules: Added rule with ID " << rule->GetId());
    } catch (const std::runtime_error& error) {
      ZLOG_ERROR("RuleEngine::AddRules: Failed to add rule with ID " << rule->GetId() << ": " << error.what());
      if (refusals.empty()) first_failure = error.what();
      refusals.emplace(rule->GetId(), error.what());
    }
    progress.Step();
  }
  AddAtTargetsOf(socket, tag);
  std::erase_if(remembered_, [&](const auto& entry) { return entry.first.tag == tag; });
  TellRulesInForce();
  if (!refusals.empty()) replacement.failure.emplace(first_failure, std::move(refusals));
  return replacement;
}

void InstalledRules::Remember(const RuleAddress& address, const edr::EventRule& rule, bool is_in_kernel) {
  const auto watched = watched_.find(address);
  if (watched == watched_.end() && !IsLookedFor(address)) return;
  const std::optional<WatchedObject> object = watched != watched_.end() ? std::optional(watched->second) : std::nullopt;
  remembered_[address] = {RulePaths::Tidy(rule.GetPath()), object, absent_.count(address) == 0 || is_in_kernel,
                          is_in_kernel};
}

void InstalledRules::RemoveOthers(AuditSocket& socket, const std::string& tag, const std::set<RuleKey>& staying,
                                  const RuleIdentities& kept, const RuleIdentities& listed) {
  const auto of_tag = table_.GetRules().find(tag);
  if (of_tag == table_.GetRules().end()) return;
  RuleTable::RulesByKey old_rules = of_tag->second;
  std::erase_if(old_rules, [&](const auto& entry) { return staying.count(entry.first) != 0; });
  Progress progress(clock_, "RuleEngine::AddRules: Removed", old_rules.size());
  for (const auto& [key, rule] : old_rules) {
    const RuleIdentities identities = IdentitiesOf(*rule, coverage_);
    Remember({tag, key}, *rule, std::includes(listed.begin(), listed.end(), identities.begin(), identities.end()));
    DeleteFromKernel(socket, {tag, key}, kept);
    table_.Remove(tag, key);
    absent_.erase({tag, key});
    paths_.Remove({tag, key}, *rule);
    watched_.erase({tag, key});
    progress.Step();
  }
}

// A rule that stays in the kernel may get the name that another one has had until now. They all come back by Insert.
void InstalledRules::ReleaseProcessNames(const std::string& tag, const std::set<RuleKey>& staying) {
  for (const RuleKey& key : staying) {
    if (key.type == edr::ObjectType::Process) table_.Remove(tag, key);
  }
}

// A birth that only one of the two sights tells says nothing.
bool InstalledRules::IsAnotherThan(const Memory& memory, const WatchedObject& object) {
  if (memory.object->object != object.object) return true;
  const bool is_reborn = memory.object->born != 0 && object.born != 0 && memory.object->born != object.born;
  return is_reborn && !memory.was_in_kernel;
}

std::optional<InstalledRules::Renewed> InstalledRules::Add(AuditSocket& socket, const std::string& tag,
                                                           const Rule& rule, const Sights& sights) {
  std::vector<AuditRule> created = CreateRules(*rule, coverage_);
  const RuleAddress address{tag, RuleKey::Of(*rule)};
  table_.Insert(tag, rule);
  paths_.Insert(address, *rule);
  absent_[address] = {Absence::Reason::Refused};
  const bool has_path = RulePaths::Takes(rule->GetType());
  const std::string path = has_path ? RulePaths::Tidy(rule->GetPath()) : std::string();
  const auto remembered = remembered_.find(address);
  const Memory* memory =
      remembered != remembered_.end() && remembered->second.path == path ? &remembered->second : nullptr;
  if (memory != nullptr && memory->object) watched_[address] = *memory->object;
  if (AddRuleToAudit(socket, *rule, created) == Outcome::PathMissing) {
    absent_[address] = {memory != nullptr ? Absence::Reason::Gone : Absence::Reason::NeverThere};
    ZLOG_WARNING("Rule " << rule->GetId() << " is not in force: there is no " << rule->GetPath());
    return std::nullopt;
  }
  absent_.erase(address);
  const auto sight = sights.find({rule->GetType(), path});
  if (!has_path || sight == sights.end() || sight->second.state != Sight::State::There) return std::nullopt;
  const WatchedObject& object = sight->second.object;
  watched_[address] = object;
  if (memory == nullptr) return std::nullopt;
  const bool is_another = memory->object && IsAnotherThan(*memory, object);
  if (memory->is_heard && !is_another) return std::nullopt;
  ZLOG_INFO("Rule " << rule->GetId() << " is in force: " << rule->GetPath() << " is there now");
  return Renewed{rule, true};
}

bool InstalledRules::DeleteFromKernel(AuditSocket& socket, const RuleAddress& address, const RuleIdentities& kept) {
  const Rule rule = table_.Find(address.tag, address.key);
  const bool was_there = rule && DeleteRuleFromAudit(socket, *rule, coverage_, kept);
  const auto at_target = at_target_.find(address);
  if (at_target == at_target_.end()) return was_there;
  DeleteRuleFromAudit(socket, *at_target->second, coverage_, kept);
  at_target_.erase(at_target);
  return was_there;
}

void InstalledRules::DeleteFromAudit(AuditSocket& socket) {
  Progress progress(clock_, "RuleEngine: Removed", table_.GetSize());
  for (const auto& [tag, rules] : table_.GetRules()) {
    for (const auto& [key, rule] : rules) {
      const bool was_there = DeleteFromKernel(socket, {tag, key});
      Remember({tag, key}, *rule, was_there);
      progress.Step();
    }
  }
}

void InstalledRules::Clear() {
  table_.Clear();
  paths_.Clear();
  absent_.clear();
  watched_.clear();
  at_target_.clear();
}

void InstalledRules::TellRulesInForce() const {
  const std::size_t all = table_.GetSize();
  ZLOG_INFO("Rules in force: " << all - absent_.size() << " of " << all);
}

}  // namespace zagent::audit::internal
