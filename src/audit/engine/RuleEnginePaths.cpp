// How a RuleEngine stays with the paths of its rules; RuleEngine.cpp has the rest.
#include <algorithm>
#include <optional>
#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/events/FoundObject.h"
#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/rules/AuditSocket.h"

namespace zagent::audit {
namespace {

using edr::EventType;
using edr::ObjectType;

// Of a folder that a rule is put into force for.
constexpr std::size_t kMostEntries = 1'000;
// Of all such folders, until the event thread has taken them; what is beyond that is dropped.
constexpr std::size_t kMostFoundObjects = 10'000;

const std::string& PathOf(const common::ImageInfo* file) {
  static const std::string kNone;
  return file != nullptr ? file->GetPath() : kNone;
}

}  // namespace

bool RuleEngine::HasRuleAt(const std::string& path) {
  const std::lock_guard lock(mutex_);
  return !rules_.Table().FindAt(path).empty();
}

void RuleEngine::CorrectPaths(edr::Event& event) {
  if (event.GetObjectType() != ObjectType::File && event.GetObjectType() != ObjectType::Directory) return;
  std::vector<internal::RuleTable::Rule> named;
  {
    const std::lock_guard lock(mutex_);
    if (rules_.Table().IsEmpty() || !rules_.Table().FindFor(event).empty()) return;
    named = rules_.Table().RulesOfAuditKey(event.GetAuditKey());
  }
  const auto has_rule = [this](const std::string& path) { return HasRuleAt(path); };
  const std::vector<std::string> new_paths = true_paths_.OfNewFile(event);
  const auto new_path = std::find_if(new_paths.begin(), new_paths.end(), has_rule);
  if (new_path != new_paths.end()) event.UpdateNewFilePath(*new_path);
  const std::vector<std::string> paths = true_paths_.OfFile(event);
  const auto path = std::find_if(paths.begin(), paths.end(), has_rule);
  if (path != paths.end()) return event.UpdateFilePath(*path);
  for (const auto& rule : named) {
    if (const auto at_rule = true_paths_.OfFileAt(*rule, event)) return event.UpdateFilePath(*at_rule);
  }
}

bool RuleEngine::FollowKernelsRules(const edr::Event& event) {
  if (event.GetType() != EventType::Delete) return true;
  const auto* told = dynamic_cast<const internal::RuleRemovedEvent*>(&event);
  if (told == nullptr) return true;
  const std::lock_guard lock(mutex_);
  bool is_news = false;
  for (const auto& [key, path] : told->RemovedRules()) is_news = rules_.NoteRuleGone(key, path) || is_news;
  TellWhetherPathsAreMissing();
  return is_news && !told->IsToldByCall() && event.GetObjectType() == ObjectType::Directory;
}

void RuleEngine::FollowFolders(const edr::Event& event) {
  if (event.GetObjectType() != ObjectType::Directory || !event.IsSuccessful()) return;
  const EventType type = event.GetType();
  const bool is_rename = type == EventType::Rename;
  bool may_be_back = false;
  {
    const std::lock_guard lock(mutex_);
    const bool is_gone = type == EventType::Delete || is_rename;
    if (is_gone && rules_.NotePathGone(PathOf(event.GetFile()), is_rename)) TellWhetherPathsAreMissing();
    if (type == EventType::Create) may_be_back = rules_.IsMissingAtOrBelow(PathOf(event.GetFile()));
    if (is_rename) may_be_back = rules_.IsMissingAtOrBelow(PathOf(event.GetNewFile()));
  }
  if (may_be_back) LookForMissingPaths();
}

void RuleEngine::LookForMissingPaths() {
  const std::lock_guard lock(mutex_);
  if (!rules_.HasReturned()) return;
  try {
    internal::AuditSocket socket(netlink_, "RuleEngine");
    const auto renewed = rules_.Renew(socket);
    for (const auto& [rule, is_new] : renewed) {
      if (is_new) KeepFoundObjects(*rule);
    }
    // Whoever is told looks through all folders: not for a rule that is refused once a second.
    if (!renewed.empty()) TellWatchedFolders();
  } catch (const edr::RuleEngineException& error) {
    ZLOG_ERROR("RuleEngine: Failed to put rules into force again: " << error.what());
  }
  TellWhetherPathsAreMissing();
}

// What was made before the kernel had the rule, nobody has told of.
void RuleEngine::KeepFoundObjects(const edr::EventRule& rule) {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  std::vector<std::unique_ptr<edr::Event>> found;
  if (rule.GetType() == ObjectType::Directory) {
    found = internal::MakeFoundEntries(rule.GetPath(), rule.GetId(), now, file_context_, kMostEntries);
  } else if (auto file = internal::MakeFoundObject(rule.GetPath(), rule.GetId(), now, file_context_)) {
    found.push_back(std::move(file));
  }
  for (auto& event : found) {
    if (found_objects_.size() >= kMostFoundObjects) {
      ZLOG_WARNING("RuleEngine: No room to report what was found at " << rule.GetPath());
      break;
    }
    found_objects_.push_back(std::move(event));
  }
}

void RuleEngine::RouteFoundObjects() {
  std::vector<std::unique_ptr<edr::Event>> found;
  {
    const std::lock_guard lock(mutex_);
    found.swap(found_objects_);
  }
  for (auto& event : found) router_.Process(std::move(event));
}

}  // namespace zagent::audit
