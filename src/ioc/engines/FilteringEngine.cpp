#include "src/ioc/engines/FilteringEngine.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using edr::ObjectType;

const std::string& PathOf(const common::ImageInfo* image) {
  static const std::string kNone;
  return image != nullptr ? image->GetPath() : kNone;
}

bool IsOfPath(ObjectType type) {
  return type == ObjectType::File || type == ObjectType::Directory;
}

// The paths of an event of files, as they are held against rules.
struct EventPaths {
  explicit EventPaths(const edr::Event& event)
      : file(IsOfPath(event.GetObjectType()) ? event.GetFile() : nullptr),
        new_file(event.GetType() == EventType::Rename ? event.GetNewFile() : nullptr) {}

  // Whether one of them fulfils it; a rename has two.
  template <typename Condition>
  [[nodiscard]] bool Any(Condition condition) const {
    return condition(file.Get()) || condition(new_file.Get());
  }

  const NormalPath file;
  const NormalPath new_file;
};

// Whether a rule of this type and path is to be asked about the event.
bool Fits(ObjectType rule_type, const std::string& rule_path, ObjectType event_type, const EventPaths& paths) {
  if (rule_type != event_type && !(event_type == ObjectType::File && rule_type == ObjectType::Directory)) return false;
  if (rule_type == ObjectType::File) return paths.Any([&](std::string_view path) { return path == rule_path; });
  if (rule_type != ObjectType::Directory) return true;
  return paths.Any([&](std::string_view path) { return IsWithin(path, rule_path); });
}

}  // namespace

FilteringEngine::FilteringEngine(TtlProcessTree& tree, const EventRuleManager& manager)
    : tree_(tree), manager_(manager) {
  TakeRules();
}

void FilteringEngine::OnRulesChanged() {
  const std::lock_guard lock(mutex_);
  rules_changed_ = true;
}

// The flag goes first: a change that comes while the rules are copied is seen by the next event.
void FilteringEngine::TakeChangedRules() {
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(rules_changed_, false)) return;
  }
  TakeRules();
}

void FilteringEngine::TakeRules() {
  rules_.clear();
  for (auto& rule : manager_.GetRules()) {
    const ObjectType type = rule->GetType();
    std::string path = IsOfPath(type) ? edr::LexicallyNormal(rule->GetPath()) : "";
    rules_.push_back({std::move(rule), type, std::move(path)});
  }
  whitelist_rules_ = manager_.GetWhitelistGlobalRules();
}

Verdict FilteringEngine::Process(const edr::Event& event) {
  TakeChangedRules();
  const std::shared_ptr<ProcessInfo> process = tree_.Get(event.GetActorProcessId());
  const Verdict verdict = Judge(event, *process);
  KeepExcludedTag(event, *process, verdict);
  return verdict;
}

Verdict FilteringEngine::Judge(const edr::Event& event, const ProcessInfo& process) const {
  const EventType type = event.GetType();
  if (type == EventType::ProcessExit || type == EventType::AbnormalEnd) return JudgeEnd(event, process);
  if (type == EventType::Delete) {
    ZLOG_DEBUG("Adding verdict 'Unknown' to " << event.GetAction() << " event for file " << PathOf(event.GetFile()));
    return Verdict::Unknown;
  }
  if (IsWhitelisted(event)) {
    ZLOG_DEBUG("Adding verdict 'Clean' to " << event.GetAction() << " (ID: " << event.GetId()
                                            << ") as WhitelistGlobal exclusion filter matched");
    return Verdict::Clean;
  }
  if (!MatchesRule(event)) return Verdict::Clean;
  ZLOG_DEBUG("Adding verdict 'Unknown' to " << event.GetAction() << " (ID: " << event.GetId()
                                            << ") as it matches manifest rule");
  return Verdict::Unknown;
}

// The end of a process is reported only if something of it was.
Verdict FilteringEngine::JudgeEnd(const edr::Event& event, const ProcessInfo& process) const {
  const bool is_reported = process.HasTag(process_tag::kReported);
  ZLOG_DEBUG("Adding verdict " << (is_reported ? "'Unknown'" : "'Clean'") << " to " << event.GetAction()
                               << " event for " << (is_reported ? "reported" : "unreported") << " process ("
                               << PathOf(process.GetImage()) << ", " << process.GetPid() << ")");
  return is_reported ? Verdict::Unknown : Verdict::Clean;
}

bool FilteringEngine::IsWhitelisted(const edr::Event& event) const {
  return std::any_of(whitelist_rules_.begin(), whitelist_rules_.end(),
                     [&](const auto& rule) { return rule->Match(event) != edr::MatchResult::Matched; });
}

bool FilteringEngine::MatchesRule(const edr::Event& event) const {
  const EventPaths paths(event);
  return std::any_of(rules_.begin(), rules_.end(), [&](const Candidate& candidate) {
    if (!Fits(candidate.type, candidate.path, event.GetObjectType(), paths)) return false;
    const bool matches = candidate.rule->Match(event) == edr::MatchResult::Matched;
    ZLOG_DEBUG(event.GetAction() << " (ID: " << event.GetId() << ") " << (matches ? "matches" : "does not match")
                                 << " with rule ID " << candidate.rule->GetId());
    return matches;
  });
}

void FilteringEngine::KeepExcludedTag(const edr::Event& event, ProcessInfo& process, Verdict verdict) {
  if (event.GetType() != EventType::ProcessStart) return;
  if (verdict == Verdict::Unknown) {
    if (!process.HasTag(process_tag::kExcluded)) return;
    ZLOG_DEBUG("Removing 'Excluded' tag from process " << PathOf(process.GetImage()) << " ( pid:" << process.GetPid()
                                                       << ")");
    process.RemoveTag(process_tag::kExcluded);
  } else if (!process.HasTag(process_tag::kReported) && !process.HasTag(process_tag::kExcluded)) {
    process.AddTag(process_tag::kExcluded);
  }
}

}  // namespace zagent::ioc::internal
