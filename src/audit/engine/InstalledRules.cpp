#include "src/audit/engine/InstalledRules.h"

#include <sys/stat.h>

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

// What the kernel needs to have at a rule's path: the folder, or the one that the file is to be in.
std::optional<FileIdentity> WatchedObject(const edr::EventRule& rule) {
  if (rule.GetType() != edr::ObjectType::File && rule.GetType() != edr::ObjectType::Directory) return std::nullopt;
  std::string path = RulePaths::Tidy(rule.GetPath());
  if (rule.GetType() == edr::ObjectType::File) path = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
  struct stat found {};
  if (stat(path.c_str(), &found) != 0 || !S_ISDIR(found.st_mode)) return std::nullopt;
  return FileIdentity::Of(found);
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
      if (absent_.count({other_tag, key}) == 0) kept.merge(IdentitiesOf(*rule, coverage_));
    }
  }
  return kept;
}

std::optional<std::string> InstalledRules::Replace(AuditSocket& socket, const std::string& tag,
                                                   edr::EventRuleEngine::Rules rules) {
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
  RemoveOthers(socket, tag, staying, kept);
  ReleaseProcessNames(tag, staying);

  std::optional<std::string> first_failure;
  std::set<RuleKey> seen;
  Progress progress(clock_, "RuleEngine::AddRules: Added", rules.size());
  for (const auto& rule : rules) {
    try {
      const RuleKey key = RuleKey::Of(*rule);
      if (!seen.insert(key).second) RefuseSecond(*rule);
      if (staying.count(key) != 0) {
        table_.Insert(tag, rule);
      } else {
        Add(socket, tag, rule);
      }
      ZLOG_DEBUG("RuleEngine::AddRules: Added rule with ID " << rule->GetId());
    } catch (const std::runtime_error& error) {
      ZLOG_ERROR("RuleEngine::AddRules: Failed to add rule with ID " << rule->GetId() << ": " << error.what());
      if (!first_failure) first_failure = error.what();
    }
    progress.Step();
  }
  TellRulesInForce();
  return first_failure;
}

void InstalledRules::RemoveOthers(AuditSocket& socket, const std::string& tag, const std::set<RuleKey>& staying,
                                  const RuleIdentities& kept) {
  const auto of_tag = table_.GetRules().find(tag);
  if (of_tag == table_.GetRules().end()) return;
  RuleTable::RulesByKey old_rules = of_tag->second;
  std::erase_if(old_rules, [&](const auto& entry) { return staying.count(entry.first) != 0; });
  Progress progress(clock_, "RuleEngine::AddRules: Removed", old_rules.size());
  for (const auto& [key, rule] : old_rules) {
    table_.Remove(tag, key);
    absent_.erase({tag, key});
    paths_.Remove({tag, key}, *rule);
    watched_.erase({tag, key});
    DeleteRuleFromAudit(socket, *rule, coverage_, kept);
    progress.Step();
  }
}

// A rule that stays in the kernel may get the name that another one has had until now. They all come back by Insert.
void InstalledRules::ReleaseProcessNames(const std::string& tag, const std::set<RuleKey>& staying) {
  for (const RuleKey& key : staying) {
    if (key.type == edr::ObjectType::Process) table_.Remove(tag, key);
  }
}

void InstalledRules::Add(AuditSocket& socket, const std::string& tag, const Rule& rule) {
  std::vector<AuditRule> created = CreateRules(*rule, coverage_);
  const RuleAddress address{tag, RuleKey::Of(*rule)};
  // Entered first: what the kernel has taken of a rule before it refused the rest goes when the rule goes.
  table_.Insert(tag, rule);
  paths_.Insert(address, *rule);
  absent_[address] = {Absence::Reason::Refused};
  if (AddRuleToAudit(socket, *rule, created) == Outcome::InForce) {
    absent_.erase(address);
    if (const auto watched = WatchedObject(*rule)) watched_[address] = *watched;
    return;
  }
  absent_[address] = {Absence::Reason::NeverThere};
  ZLOG_WARNING("Rule " << rule->GetId() << " is not in force: there is no " << rule->GetPath());
}

bool InstalledRules::Lose(const RuleAddress& address, Absence::Reason reason) {
  const Rule rule = table_.Find(address.tag, address.key);
  if (!rule || absent_.count(address) != 0) return false;
  absent_[address] = {reason};
  ZLOG_WARNING("Rule " << rule->GetId() << " is not in force any more: " << rule->GetPath() << " is gone");
  return true;
}

bool InstalledRules::NotePathGone(const std::string& path, bool is_renamed) {
  bool is_news = false;
  for (const RuleAddress& address : paths_.AtOrBelow(path)) {
    is_news = Lose(address, is_renamed ? Absence::Reason::Moved : Absence::Reason::Dropped) || is_news;
  }
  if (is_news) TellRulesInForce();
  return is_news;
}

bool InstalledRules::NoteRuleGone(const std::string& key, const std::string& path) {
  bool is_news = false;
  for (const auto& [tag, ids] : table_.FindByAuditKey(key)) {
    for (const RuleAddress& address : paths_.AtOrBelow(path)) {
      const bool is_meant = address.tag == tag && std::find(ids.begin(), ids.end(), address.key.id) != ids.end();
      const Rule rule = is_meant ? table_.Find(tag, address.key) : nullptr;
      if (!rule || RulePaths::Tidy(rule->GetPath()) != RulePaths::Tidy(path)) continue;
      is_news = Lose(address, Absence::Reason::Dropped) || is_news;
      // Its folder was made anew, and may be the same to the eye.
      absent_[address] = {Absence::Reason::Dropped};
    }
  }
  if (is_news) TellRulesInForce();
  return is_news;
}

bool InstalledRules::IsLookedFor(const Absence& absence) const {
  switch (absence.reason) {
    case Absence::Reason::Refused:
      return false;
    case Absence::Reason::NeverThere:
      return coverage_.extended;
    default:
      return true;
  }
}

bool InstalledRules::IsMissingAtOrBelow(const std::string& path) const {
  if (absent_.empty()) return false;
  const std::vector<RuleAddress> addresses = paths_.AtOrBelow(path);
  return std::any_of(addresses.begin(), addresses.end(), [this](const RuleAddress& address) {
    const auto absent = absent_.find(address);
    return absent != absent_.end() && IsLookedFor(absent->second);
  });
}

bool InstalledRules::IsLookingForPaths() const {
  return std::any_of(absent_.begin(), absent_.end(), [this](const auto& entry) { return IsLookedFor(entry.second); });
}

bool InstalledRules::HasReturned() const {
  return std::any_of(absent_.begin(), absent_.end(), [this](const auto& entry) {
    const Rule rule = table_.Find(entry.first.tag, entry.first.key);
    return rule && IsLookedFor(entry.second) && WatchedObject(*rule).has_value();
  });
}

std::vector<InstalledRules::Renewed> InstalledRules::Renew(AuditSocket& socket) {
  std::vector<Renewed> renewed;
  const std::map<RuleAddress, Absence> absent = absent_;
  for (const auto& [address, absence] : absent) {
    const Rule rule = table_.Find(address.tag, address.key);
    const auto found = rule && IsLookedFor(absence) ? WatchedObject(*rule) : std::nullopt;
    if (!found) continue;
    const auto before = watched_.find(address);
    const bool came_back =
        absence.reason == Absence::Reason::Moved && before != watched_.end() && before->second == *found;
    const auto priority = absence.is_refusal_told ? Poco::Message::PRIO_DEBUG : Poco::Message::PRIO_ERROR;
    // The rule that went along with a renamed folder is the same to the kernel.
    DeleteRuleFromAudit(socket, *rule, coverage_);
    try {
      std::vector<AuditRule> created = CreateRules(*rule, coverage_);
      if (AddRuleToAudit(socket, *rule, created, priority) != Outcome::InForce) continue;
    } catch (const std::runtime_error& error) {
      ZLOG_AT(priority, "Failed to renew rule " << rule->GetId() << ": " << error.what());
      absent_[address].is_refusal_told = true;
      continue;
    }
    absent_.erase(address);
    watched_[address] = *found;
    ZLOG_INFO("Rule " << rule->GetId() << " is in force: " << rule->GetPath() << " is there now");
    renewed.push_back({rule, !came_back});
  }
  if (!renewed.empty()) TellRulesInForce();
  return renewed;
}

void InstalledRules::DeleteFromAudit(AuditSocket& socket) {
  Progress progress(clock_, "RuleEngine: Removed", table_.GetSize());
  for (const auto& [tag, rules] : table_.GetRules()) {
    for (const auto& [key, rule] : rules) {
      DeleteRuleFromAudit(socket, *rule, coverage_);
      progress.Step();
    }
  }
}

void InstalledRules::Clear() {
  table_.Clear();
  paths_.Clear();
  absent_.clear();
  watched_.clear();
}

void InstalledRules::TellRulesInForce() const {
  const std::size_t all = table_.GetSize();
  ZLOG_INFO("Rules in force: " << all - absent_.size() << " of " << all);
}

}  // namespace zagent::audit::internal
