// How InstalledRules stays with what its rules watch; InstalledRules.cpp has the rest.
#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/Log.h"
#include "src/audit/engine/InstalledRules.h"
#include "src/audit/engine/RuleAtTarget.h"
#include "src/audit/rules/CreateRules.h"

namespace zagent::audit::internal {
namespace {

// In as many looks all places come up.
constexpr std::size_t kLooksForAll = 60;

}  // namespace

bool InstalledRules::Lose(const RuleAddress& address) {
  const Rule rule = table_.Find(address.tag, address.key);
  if (!rule || !absent_.emplace(address, Absence{Absence::Reason::Gone}).second) return false;
  ZLOG_WARNING("Rule " << rule->GetId() << " is not in force any more: " << rule->GetPath() << " is gone");
  return true;
}

bool InstalledRules::NotePathGone(const std::string& path) {
  bool is_news = false;
  for (const RuleAddress& address : paths_.AtOrBelow(path)) is_news = Lose(address) || is_news;
  if (is_news) TellRulesInForce();
  return is_news;
}

std::optional<bool> InstalledRules::IsInKernel(AuditNetlink& netlink, const RuleAddress& address) const {
  const Rule rule = table_.Find(address.tag, address.key);
  try {
    AuditSocket socket(netlink, "RuleEngine: Failed to open audit socket");
    return HasInKernel(socket, *rule, coverage_);
  } catch (const edr::RuleEngineException&) {
    ZLOG_DEBUG("RuleEngine: The kernel cannot be asked for the rule of " << rule->GetPath());
    return std::nullopt;
  }
}

bool InstalledRules::NoteRuleGone(AuditNetlink& netlink, const std::string& key, const std::string& path) {
  const std::string gone = RulePaths::Tidy(path);
  bool is_news = false;
  const auto lose = [&](const RuleAddress& address) {
    if (absent_.count(address) != 0 || IsInKernel(netlink, address).value_or(false)) return;
    is_news = Lose(address) || is_news;
  };
  for (const auto& [tag, ids] : table_.FindByAuditKey(key)) {
    const auto is_meant = [&, &of_tag = tag, &of_ids = ids](const RuleAddress& address) {
      return address.tag == of_tag && std::find(of_ids.begin(), of_ids.end(), address.key.id) != of_ids.end();
    };
    for (const auto type : {edr::ObjectType::File, edr::ObjectType::Directory}) {
      for (const RuleAddress& address : paths_.At({type, gone})) {
        if (is_meant(address)) lose(address);
      }
    }
    for (const auto& [address, rule] : at_target_) {
      // The next look finds another object there.
      if (is_meant(address) && rule->GetPath() == gone) watched_[address].target_object = {};
    }
  }
  if (is_news) TellRulesInForce();
  return is_news;
}

bool InstalledRules::IsLookedFor(const RuleAddress& address) const {
  const auto absent = absent_.find(address);
  if (absent == absent_.end()) return false;
  switch (absent->second.reason) {
    case Absence::Reason::Refused:
      return false;
    case Absence::Reason::NeverThere:
      return coverage_.extended;
    default:
      return true;
  }
}

std::vector<WatchedPlace> InstalledRules::AwaitedPlaces(const std::string& at_or_below) const {
  if (absent_.empty()) return {};
  std::set<WatchedPlace> places;
  for (const RuleAddress& address : paths_.AtOrBelow(at_or_below)) {
    if (!IsLookedFor(address)) continue;
    places.insert({address.key.type, RulePaths::Tidy(table_.Find(address.tag, address.key)->GetPath())});
  }
  return {places.begin(), places.end()};
}

std::vector<WatchedPlace> InstalledRules::NextPlaces() {
  std::vector<WatchedPlace> places =
      paths_.PlacesAfter(looked_at_, (paths_.GetSize() + kLooksForAll - 1) / kLooksForAll);
  if (!places.empty()) looked_at_ = places.back().path;
  return places;
}

bool InstalledRules::HasAnotherAt(const std::optional<std::string>& target, const RuleAddress& address) const {
  if (!target) return false;
  const std::vector<RuleAddress> others = paths_.At({address.key.type, *target});
  return std::any_of(others.begin(), others.end(), [&](const auto& other) { return other.tag == address.tag; });
}

// The rule holds on to an object that is not the one that was seen.
bool InstalledRules::IsElsewhere(const RuleAddress& address, const Sight& sight) const {
  const auto watched = watched_.find(address);
  if (watched == watched_.end()) return false;
  const WatchedObject& known = watched->second;
  if (sight.state == Sight::State::Gone || known.object != sight.object.object) return true;
  if (known.target == sight.object.target && known.target_object == sight.object.target_object) return false;
  // What a link leads to is of interest to the rule that watches it.
  return at_target_.count(address) != 0 || (sight.object.target && !HasAnotherAt(sight.object.target, address));
}

void InstalledRules::LearnFirstSight(const RuleAddress& address, const Sight& sight) {
  if (sight.state == Sight::State::There && absent_.count(address) == 0) watched_.try_emplace(address, sight.object);
}

// The kernel drops a rule with the object that it watches. Where it has the rule still, the object is the same,
// whatever its birth: one that a file system puts together of others gets another one with the first change.
bool InstalledRules::IsAnother(AuditNetlink& netlink, const RuleAddress& address, const Sight& sight) {
  if (IsElsewhere(address, sight)) return true;
  const auto watched = watched_.find(address);
  const bool is_certain = sight.object.born != 0 && sight.object.born == watched->second.born;
  if (is_certain) return false;
  const std::optional<bool> is_there = IsInKernel(netlink, address);
  if (is_there.value_or(false)) watched->second.born = sight.object.born;
  return is_there == false;
}

bool InstalledRules::Judge(AuditNetlink& netlink, const std::vector<Sight>& sights) {
  bool is_news = false;
  bool may_renew = false;
  for (const Sight& sight : sights) {
    if (sight.state == Sight::State::Unknown) continue;
    const std::vector<RuleAddress> addresses = paths_.At(sight.place);
    for (const RuleAddress& address : addresses) LearnFirstSight(address, sight);
    const bool is_another = std::any_of(addresses.begin(), addresses.end(), [&](const RuleAddress& address) {
      return absent_.count(address) == 0 && watched_.count(address) != 0 && IsAnother(netlink, address, sight);
    });
    for (const RuleAddress& address : addresses) {
      if (is_another) is_news = Lose(address) || is_news;
      may_renew = may_renew || (sight.state == Sight::State::There && IsLookedFor(address));
    }
  }
  if (is_news) TellRulesInForce();
  return may_renew;
}

std::vector<InstalledRules::Renewed> InstalledRules::Renew(AuditSocket& socket, const std::vector<Sight>& sights) {
  std::vector<Renewed> renewed;
  for (const Sight& sight : sights) {
    if (sight.state != Sight::State::There) continue;
    std::vector<RuleAddress> awaited = paths_.At(sight.place);
    std::erase_if(awaited, [this](const RuleAddress& address) { return !IsLookedFor(address); });
    const bool came_back = std::all_of(awaited.begin(), awaited.end(), [&](const RuleAddress& address) {
      return watched_.count(address) != 0 && !IsElsewhere(address, sight);
    });
    if (!came_back) {
      for (const RuleAddress& address : awaited) DeleteFromKernel(socket, address);
    }
    for (const RuleAddress& address : awaited) {
      const std::optional<Outcome> outcome = PutIntoForce(socket, address, sight);
      if (!outcome) continue;
      const Rule rule = table_.Find(address.tag, address.key);
      ZLOG_INFO("Rule " << rule->GetId() << " is in force: " << rule->GetPath() << " is there now");
      renewed.push_back({rule, !came_back || *outcome == Outcome::Added});
    }
  }
  if (!renewed.empty()) TellRulesInForce();
  return renewed;
}

std::optional<Outcome> InstalledRules::PutIntoForce(AuditSocket& socket, const RuleAddress& address,
                                                    const Sight& sight) {
  const Rule rule = table_.Find(address.tag, address.key);
  const bool is_told = absent_[address].is_refusal_told;
  const auto priority = is_told ? Poco::Message::PRIO_DEBUG : Poco::Message::PRIO_ERROR;
  Outcome outcome = Outcome::PathMissing;
  try {
    std::vector<AuditRule> created = CreateRules(*rule, coverage_);
    outcome = AddRuleToAudit(socket, *rule, created, priority);
    if (outcome == Outcome::PathMissing) return std::nullopt;
    AddAtTarget(socket, address, rule, sight.object, priority);
  } catch (const std::runtime_error& error) {
    ZLOG_AT(priority, "Failed to renew rule " << rule->GetId() << ": " << error.what());
    absent_[address].is_refusal_told = true;
    return std::nullopt;
  }
  absent_.erase(address);
  watched_[address] = sight.object;
  return outcome;
}

void InstalledRules::AddAtTarget(AuditSocket& socket, const RuleAddress& address, const Rule& rule,
                                 const WatchedObject& object, Poco::Message::Priority priority) {
  if (!object.target || HasAnotherAt(object.target, address)) return;
  const Rule at_target = std::make_shared<const RuleAtTarget>(rule, *object.target);
  std::vector<AuditRule> created = CreateRules(*at_target, coverage_);
  // Entered first: what the kernel has taken of it before it refused the rest goes when the rule goes.
  at_target_[address] = at_target;
  AddRuleToAudit(socket, *at_target, created, priority);
  ZLOG_INFO("Rule " << rule->GetId() << " is in force at " << *object.target << ", too: " << rule->GetPath()
                    << " is a link");
}

void InstalledRules::AddAtTargetsOf(AuditSocket& socket, const std::string& tag) {
  const auto of_tag = table_.GetRules().find(tag);
  if (of_tag == table_.GetRules().end()) return;
  for (const auto& [key, rule] : of_tag->second) {
    const RuleAddress address{tag, key};
    const auto watched = watched_.find(address);
    if (watched == watched_.end() || absent_.count(address) != 0 || at_target_.count(address) != 0) continue;
    try {
      AddAtTarget(socket, address, rule, watched->second, Poco::Message::PRIO_ERROR);
    } catch (const std::runtime_error& error) {
      ZLOG_ERROR("Failed to renew rule " << rule->GetId() << ": " << error.what());
      absent_[address] = {Absence::Reason::Gone, true};
    }
  }
}

}  // namespace zagent::audit::internal
