#include "src/audit/engine/RuleEngine.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/Log.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/BacklogLimit.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/KernelRules.h"

namespace zagent::audit {

using internal::AuditRule;
using internal::AuditSocket;
using internal::RuleTable;

RuleEngine::RuleEngine(AuditNetlink& netlink, common::ProcessTree& process_tree, Settings settings,
                       IntakeCounters& counters, common::util::Clock& clock)
    : netlink_(netlink),
      watch_folders_(std::move(settings.watch_folders)),
      exclusions_(getpid(), settings.agent_pid, settings.agent_path),
      own_activity_(process_tree, std::move(settings.sibling_names), std::move(settings.agent_install_path)),
      router_(
          clock, settings.max_resting_events, counters,
          [this](const edr::Event& event) { return ShouldProcessEvent(event); },
          [this](const edr::Event& event) { CallHandlers(event); }) {
  {
    // A late answer to the question for the limit must not be taken for the answer to a rule.
    AuditSocket status(netlink_, "RuleEngine");
    internal::RaiseAuditBacklogLimit(status, settings.audit_backlog_limit);
  }
  AuditSocket socket(netlink_, "RuleEngine");
  internal::Exclusions::DeleteAll(socket);
  coverage_ = internal::FindCoverage(socket, settings.extended_coverage);
  exclusions_.AddAll(socket);
}

RuleEngine::~RuleEngine() {
  ZLOG_DEBUG("Destroying RuleEngine");
  try {
    const std::lock_guard lock(mutex_);
    AuditSocket socket(netlink_, "RuleEngine::~RuleEngine");
    DeleteEverythingFromAudit(socket);
  } catch (const edr::RuleEngineException&) {  // NOLINT(bugprone-empty-catch)
    // Without a socket, which is logged, the rules stay; the next start removes them.
  } catch (const std::exception& error) {
    ZLOG_ERROR("RuleEngine::~RuleEngine: " << error.what());
  }
}

void RuleEngine::AddRules(const std::string& tag, Rules rules) {
  if (tag.empty()) throw std::runtime_error("RuleEngine::AddRules: 'tag' is empty");
  if (std::find(rules.begin(), rules.end(), nullptr) != rules.end()) {
    throw std::runtime_error("RuleEngine::AddRules: 'rule' is nullptr");
  }
  ZLOG_INFO("RuleEngine::AddRules: Adding " << rules.size() << " rules");
  std::sort(rules.begin(), rules.end(), [](const auto& a, const auto& b) { return a->GetId() < b->GetId(); });

  const std::lock_guard lock(mutex_);
  AuditSocket socket(netlink_, "RuleEngine::AddRules");
  internal::DeleteDuplicateRules(socket, rules);
  const std::set<std::string> touched = RemoveAllBut(socket, tag, rules);
  std::optional<std::string> first_failure;
  const std::string* previous_id = nullptr;
  for (const auto& rule : rules) {
    try {
      if (previous_id != nullptr && *previous_id == rule->GetId()) {
        throw edr::RuleEngineException("Cannot add more than 1 rule with id '" + rule->GetId() + "'");
      }
      previous_id = &rule->GetId();
      AddRule(socket, tag, rule);
    } catch (const std::runtime_error& error) {
      ZLOG_ERROR("RuleEngine::AddRules: Failed to add rule with ID " << rule->GetId() << ": " << error.what());
      if (!first_failure) first_failure = error.what();
    }
  }
  RestoreRulesOfOtherTags(socket, tag, touched);
  TellWatchedFolders();
  if (first_failure) throw edr::RuleEngineException(*first_failure);
}

std::set<std::string> RuleEngine::RemoveAllBut(AuditSocket& socket, const std::string& tag, const Rules& kept) {
  std::set<std::string> touched;
  for (const auto& rule : kept) touched.insert(internal::ComparedPart(rule->GetId()));
  const auto of_tag = rules_.GetRules().find(tag);
  if (of_tag == rules_.GetRules().end()) return touched;
  const std::set<RuleTable::Rule> kept_objects(kept.begin(), kept.end());
  const RuleTable::RulesById old_rules = of_tag->second;
  for (const auto& [id, rule] : old_rules) {
    if (kept_objects.count(rule) != 0) continue;
    rules_.Remove(tag, id);
    internal::DeleteRuleFromAudit(socket, *rule, coverage_);
    touched.insert(internal::ComparedPart(id));
  }
  return touched;
}

void RuleEngine::AddRule(AuditSocket& socket, const std::string& tag, const RuleTable::Rule& rule) {
  std::vector<AuditRule> created = internal::CreateRules(*rule, coverage_);
  // Entered first: what the kernel has taken of a rule before it refused the rest goes when the rule goes.
  rules_.Insert(tag, rule);
  internal::AddRuleToAudit(socket, *rule, created);
  ZLOG_DEBUG("RuleEngine::AddRules: Added rule with ID " << rule->GetId());
}

// Two tags may use one id, and then the kernel's rules of both go by the same key.
void RuleEngine::RestoreRulesOfOtherTags(AuditSocket& socket, const std::string& tag,
                                         const std::set<std::string>& touched) {
  for (const auto& [other_tag, rules] : rules_.GetRules()) {
    if (other_tag == tag) continue;
    for (const auto& [id, rule] : rules) {
      if (touched.count(internal::ComparedPart(id)) == 0) continue;
      try {
        std::vector<AuditRule> created = internal::CreateRules(*rule, coverage_);
        internal::AddRuleToAudit(socket, *rule, created);
      } catch (const std::runtime_error& error) {
        ZLOG_ERROR("RuleEngine::AddRules: Failed to restore rule with ID " << id << " of '" << other_tag
                                                                           << "': " << error.what());
      }
    }
  }
}

void RuleEngine::DeleteEverythingFromAudit(AuditSocket& socket) {
  for (const auto& [tag, rules] : rules_.GetRules()) {
    for (const auto& [id, rule] : rules) internal::DeleteRuleFromAudit(socket, *rule, coverage_);
  }
  internal::Exclusions::DeleteAll(socket);
}

// Invalidate does not tell: the same rules come back at once.
void RuleEngine::TellWatchedFolders() const {
  if (watch_folders_) watch_folders_(rules_.WatchedFolders());
}

void RuleEngine::Invalidate() {
  ZLOG_DEBUG("RuleEngine::Invalidate: Cleaning up all rules");
  {
    const std::lock_guard lock(mutex_);
    AuditSocket socket(netlink_, "RuleEngine::Invalidate");
    DeleteEverythingFromAudit(socket);
    rules_.Clear();
    exclusions_.AddAll(socket);
  }
  // The owners come back through AddRules.
  CallInvalidatedOfAllTags();
}

void RuleEngine::UpdateExclusions(std::int32_t agent_pid, const std::string& agent_path) {
  const std::lock_guard lock(mutex_);
  if (!exclusions_.NeedsUpdate(agent_pid, agent_path)) return;
  try {
    AuditSocket socket(netlink_, "RuleEngine");
    exclusions_.Update(socket, agent_pid, agent_path);
  } catch (const edr::RuleEngineException& error) {
    ZLOG_ERROR("RuleEngine: Failed to refresh exclusion rules in audit with new host warden pid"
               << ": " << error.what());
  }
}

void RuleEngine::ProcessEvent(std::unique_ptr<edr::Event> event) {
  if (!event) throw std::runtime_error("RuleEngine::ProcessEvent: 'event' is nullptr");
  router_.Process(std::move(event));
}

bool RuleEngine::OnIdle() {
  return router_.DeliverDue();
}

void RuleEngine::OnStop(std::chrono::nanoseconds time) {
  router_.DeliverRest(time);
}

bool RuleEngine::ShouldProcessEvent(const edr::Event& event) {
  if (event.GetType() == edr::EventType::AbnormalEnd) return true;
  const std::lock_guard lock(mutex_);
  if (!own_activity_.IsSourceOf(event, exclusions_.GetExcludedPids())) return true;
  ZLOG_DEBUG("AuditRuleEngine::ShouldProcessEvent: Dropping Ostrel generated event with ID: " << event.GetId());
  return false;
}

void RuleEngine::CallHandlers(const edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::File && event.GetObjectType() != edr::ObjectType::Directory) return;
  std::map<std::string, std::vector<std::string>> ids_by_tag;
  {
    const std::lock_guard lock(mutex_);
    ids_by_tag = rules_.FindByPathOf(event);
  }
  // A component that fails must not take the event away from the next one.
  std::exception_ptr first_failure;
  for (const auto& [tag, ids] : ids_by_tag) {
    try {
      CallRuleMatched(tag, ids, event);
    } catch (const std::exception&) {
      if (!first_failure) first_failure = std::current_exception();
    }
  }
  if (first_failure) std::rethrow_exception(first_failure);
}

}  // namespace zagent::audit
