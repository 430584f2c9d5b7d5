// How a RuleEngine stays with the paths of its rules; RuleEngine.cpp has the rest.
#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/events/FoundObject.h"
#include "src/audit/events/PathResolution.h"
#include "src/audit/events/RuleRemovedEvent.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/edr/process/EventBytes.h"

namespace zagent::audit {
namespace {

using edr::EventType;
using edr::ObjectType;
using internal::AuditSocket;

// Of a folder that a rule is put into force for.
constexpr std::size_t kMostEntries = 1'000;
// Of all such folders, until the event thread has taken them; what is beyond that is dropped.
constexpr std::size_t kMostFoundObjects = 10'000;
// Of these in one go: between two of them the event thread looks whether it is to stop.
constexpr std::size_t kMostRoutedAtOnce = 100;

using IdsByTag = internal::RuleTable::IdsByTag;

bool IsOfFiles(const edr::Event& event) {
  return event.GetObjectType() == ObjectType::File || event.GetObjectType() == ObjectType::Directory;
}

bool Has(const std::vector<std::string>& ids, const std::string& id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

void AddMissing(const std::vector<std::string>& ids, std::vector<std::string>& to) {
  for (const std::string& id : ids) {
    if (!Has(to, id)) to.push_back(id);
  }
  std::sort(to.begin(), to.end());
}

bool HaveCommon(const IdsByTag& left, const IdsByTag& right) {
  return std::any_of(left.begin(), left.end(), [&](const auto& of_tag) {
    const auto others = right.find(of_tag.first);
    return others != right.end() && std::any_of(of_tag.second.begin(), of_tag.second.end(),
                                                [&](const std::string& id) { return Has(others->second, id); });
  });
}

// Whether one of the rules stands where `rule` does, by whatever way: the object that it is hidden from is its own.
bool StandsWithOneOf(const std::vector<internal::RuleTable::Rule>& rules, const edr::EventRule& rule) {
  const std::optional<std::string> place = internal::CanonicalPath(rule.GetPath());
  return place && std::any_of(rules.begin(), rules.end(),
                              [&](const auto& other) { return internal::CanonicalPath(other->GetPath()) == place; });
}

const std::string& PathOf(const common::ImageInfo* file) {
  static const std::string kNone;
  return file != nullptr ? file->GetPath() : kNone;
}

bool IsAtOrBelow(const std::string& path, const std::string& top) {
  return internal::RulePaths::IsAtOrBelow(internal::RulePaths::Tidy(path), internal::RulePaths::Tidy(top));
}

// No other event tells of the removal of this folder.
bool IsOfFolderAlone(const internal::RuleRemovedEvent& told) {
  return !told.IsToldByCall() && told.GetObjectType() == ObjectType::Directory;
}

}  // namespace

const IdsByTag& RuleEngine::FindFor(const Snapshot& known, const edr::Event& event) {
  static const std::string kNone;
  const ObjectType type = event.GetObjectType();
  const bool is_rename = event.GetType() == EventType::Rename;
  const std::string& path = IsOfFiles(event) ? PathOf(event.GetFile()) : kNone;
  const std::string& new_path = IsOfFiles(event) && is_rename ? PathOf(event.GetNewFile()) : kNone;
  AnswerByPath& last = last_by_path_;
  const bool is_alike = last.rules == known && last.type == type && last.is_rename == is_rename;
  // Each event is asked about several times.
  if (is_alike && last.path == path && last.new_path == new_path) return last.found;
  const std::string_view part = known->ToldPartOf(path);
  const std::string_view new_part = known->ToldPartOf(new_path);
  if (is_alike && last.told_part == part && last.new_told_part == new_part) {
    last.path = path;
    last.new_path = new_path;
    return last.found;
  }
  IdsByTag found = known->FindFor(event);
  auto of_files = known->RulesOf(found);
  last = {known,
          type,
          is_rename,
          path,
          new_path,
          std::string(part),
          std::string(new_part),
          std::move(found),
          std::move(of_files)};
  return last.found;
}

const IdsByTag& RuleEngine::FindByAuditKey(const Snapshot& known, const std::string& key) {
  AnswerByKey& last = last_by_key_;
  if (last.rules == known && last.key == key) return last.found;
  last = {known, key, known->FindByAuditKey(key), {}};
  last.of_files = known->RulesOf(last.found);
  return last.found;
}

void RuleEngine::CorrectPaths(edr::Event& event) {
  if (!IsOfFiles(event)) return;
  const auto known = known_rules_.Get();
  if (known->IsEmpty() || !FindFor(known, event).empty()) return;
  const std::vector<internal::RuleTable::Rule> named = known->RulesOfAuditKey(event.GetAuditKey());
  const auto has_rule = [&known](const std::string& path) { return !known->FindAt(path).empty(); };
  const std::vector<std::string> new_paths = true_paths_.OfNewFile(event);
  const std::vector<std::string> paths = true_paths_.OfFile(event);
  const auto new_path = std::find_if(new_paths.begin(), new_paths.end(), has_rule);
  const auto path = std::find_if(paths.begin(), paths.end(), has_rule);
  if (new_path == new_paths.end() && path == paths.end() && named.empty()) return;  // nobody hears of it
  // Where a rule stands; else, for who is told by the kernel's key, where it is.
  if (!new_paths.empty()) event.UpdateNewFilePath(new_path != new_paths.end() ? *new_path : new_paths.front());
  if (path != paths.end()) return event.UpdateFilePath(*path);
  for (const auto& rule : named) {
    if (const auto at_rule = true_paths_.OfFileAt(*rule, event)) return event.UpdateFilePath(*at_rule);
  }
  if (!paths.empty()) event.UpdateFilePath(paths.front());
}

std::unique_ptr<edr::Event> RuleEngine::FindTwin(const edr::Event& event) {
  const auto known = known_rules_.Get();
  const IdsByTag& by_path = FindFor(known, event);
  if (by_path.empty() || HaveCommon(by_path, FindByAuditKey(known, event.GetAuditKey()))) return nullptr;
  for (const auto& rule : last_by_key_.of_files) {
    // It hears of the event under the path that the other has.
    if (StandsWithOneOf(last_by_path_.of_files, *rule)) return nullptr;
    const internal::TruePaths::Names names = true_paths_.Within(*rule, event);
    if (!names.file && !names.new_file) continue;
    std::unique_ptr<edr::Event> twin = event.Clone();
    if (names.file) twin->UpdateFilePath(*names.file);
    if (names.new_file) twin->UpdateNewFilePath(*names.new_file);
    return twin;
  }
  return nullptr;
}

bool RuleEngine::MayConcern(const std::vector<internal::RuleTable::Rule>& named, const edr::Event& event) const {
  if (named.empty()) return false;
  if (event.GetType() != EventType::Delete) return true;
  return std::any_of(named.begin(), named.end(), [&](const auto& rule) { return true_paths_.IsFileOf(*rule, event); });
}

const IdsByTag& RuleEngine::FindRules(const edr::Event& event, bool has_twin) {
  const auto known = known_rules_.Get();
  const IdsByTag& found = FindFor(known, event);
  if (!IsOfFiles(event) || has_twin) return found;
  const IdsByTag& named = FindByAuditKey(known, event.GetAuditKey());
  // Whether those that the key names are to be told as well, where the path leads to others only.
  const bool is_told = !HaveCommon(found, named) && MayConcern(last_by_key_.of_files, event);
  const auto adds_nothing = [&](const auto& of_tag) { return !is_told && found.count(of_tag.first) != 0; };
  if (std::all_of(named.begin(), named.end(), adds_nothing)) return found;
  told_by_both_ = found;
  for (const auto& [tag, ids] : named) {
    // The kernel watches objects: one that no path of a rule leads to has another name, or was moved.
    if (told_by_both_.count(tag) == 0) {
      told_by_both_[tag] = ids;
    } else if (is_told) {
      AddMissing(ids, told_by_both_[tag]);
    }
  }
  return told_by_both_;
}

IdsByTag RuleEngine::FindOtherRules(const edr::Event& twin, const edr::Event& event) {
  const auto known = known_rules_.Get();
  IdsByTag found = known->FindFor(twin);
  for (const auto& [tag, ids] : known->FindByAuditKey(twin.GetAuditKey())) AddMissing(ids, found[tag]);
  for (const auto& [tag, told] : known->FindFor(event)) {
    const auto others = found.find(tag);
    if (others == found.end()) continue;
    std::erase_if(others->second, [&ids = told](const std::string& id) { return Has(ids, id); });
    if (others->second.empty()) found.erase(others);
  }
  return found;
}

void RuleEngine::FollowRemoval(std::unique_ptr<internal::RuleRemovedEvent> removal) {
  if (IsOfFolderAlone(*removal)) {
    CorrectPaths(*removal);
    NoteDisguise(*removal);
  }
  News news;
  news.removal = std::move(removal);
  KeepNews(std::move(news));
  CatchUp();
}

bool RuleEngine::NoteRemoval(News& news) {
  {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    if (!NoteRemovedRules(*news.removal)) return true;
    rules_.NotePathGone(PathOf(news.removal->GetFile()));
  }
  if (news.is_removal_told) return true;
  NoteGone(PathOf(news.removal->GetFile()));
  router_.Process(std::move(news.removal));
  return true;
}

void RuleEngine::TellRemovalsBefore(const edr::Event& event) {
  if (news_.empty() || event.GetObjectType() != ObjectType::Directory || !event.IsSuccessful()) return;
  const bool is_rename = event.GetType() == EventType::Rename;
  if (!is_rename && event.GetType() != EventType::Create) return;
  const std::string& come = PathOf(is_rename ? event.GetNewFile() : event.GetFile());
  std::vector<std::unique_ptr<edr::Event>> told;
  bool is_known = false;  // that it went, by an event of its own
  for (News& news : news_) {
    if (!news.gone.empty() && IsAtOrBelow(come, news.gone)) is_known = true;
    if (!news.come.empty() && IsAtOrBelow(come, news.come)) is_known = false;
    if (!news.removal || news.is_removal_told || is_known || !IsOfFolderAlone(*news.removal)) continue;
    const std::string& gone = PathOf(news.removal->GetFile());
    if (!IsAtOrBelow(gone, come)) continue;
    news.is_removal_told = true;
    // It may have been told before the kernel was busy; and a rule may be several of the kernel's.
    if (gone_folders_.count(gone) != 0) continue;
    NoteGone(gone);
    told.push_back(news.removal->Clone());
  }
  for (auto& removal : told) router_.Process(std::move(removal));
}

void RuleEngine::NoteGone(const std::string& folder) {
  if (gone_folders_.size() >= kMostNews) gone_folders_.clear();
  gone_folders_.insert(folder);
}

bool RuleEngine::NoteRemovedRules(const internal::RuleRemovedEvent& told) {
  bool is_news = false;
  for (const auto& [key, path] : told.RemovedRules()) is_news = rules_.NoteRuleGone(netlink_, key, path) || is_news;
  return is_news && IsOfFolderAlone(told);
}

void RuleEngine::FollowFolders(const edr::Event& event) {
  if (event.GetObjectType() != ObjectType::Directory || !event.IsSuccessful()) return;
  const EventType type = event.GetType();
  const bool is_rename = type == EventType::Rename;
  const auto known = known_rules_.Get();
  const auto concerned = [&known](const common::ImageInfo* folder) {
    const std::string& path = PathOf(folder);
    return known->HasAtOrBelow(path) ? path : std::string();
  };
  News news;
  if (type == EventType::Delete || is_rename) news.gone = concerned(event.GetFile());
  if (type == EventType::Create) news.come = concerned(event.GetFile());
  if (is_rename) news.come = concerned(event.GetNewFile());
  if (news.gone.empty() && news.come.empty()) return;
  if (!news.come.empty()) std::erase_if(gone_folders_, [&](const auto& gone) { return IsAtOrBelow(gone, news.come); });
  if (!news.gone.empty()) NoteGone(news.gone);
  KeepNews(std::move(news));
  CatchUp();
}

bool RuleEngine::NoteFolders(News& news) {
  std::vector<internal::WatchedPlace> awaited;
  {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    if (!news.gone.empty()) rules_.NotePathGone(std::exchange(news.gone, {}));
    if (!news.come.empty()) awaited = rules_.AwaitedPlaces(news.come);
  }
  return LookAtPlaces(awaited, false);
}

void RuleEngine::LookAtPaths() {
  std::vector<internal::WatchedPlace> places;
  {
    const std::lock_guard lock(mutex_);
    places = rules_.AwaitedPlaces();
    for (auto& place : rules_.NextPlaces()) places.push_back(std::move(place));
  }
  LookAtPlaces(places, true);
}

std::vector<internal::Sight> RuleEngine::LookAtAll(const std::vector<internal::WatchedPlace>& places) const {
  std::vector<internal::Sight> sights;
  sights.reserve(places.size());
  for (const internal::WatchedPlace& place : places) sights.push_back(look_at_(place));
  return sights;
}

bool RuleEngine::LookAtPlaces(const std::vector<internal::WatchedPlace>& places, bool waits) {
  if (places.empty()) return true;
  const std::vector<internal::Sight> sights = LookAtAll(places);
  std::vector<internal::InstalledRules::Renewed> renewed;
  {
    std::unique_lock lock(mutex_, std::defer_lock);
    if (waits) lock.lock();
    if (!waits && !lock.try_lock()) return false;
    // The rules may be others by now: only what they are counts from here on.
    if (!rules_.Judge(netlink_, sights)) return true;
    try {
      AuditSocket socket(netlink_, "RuleEngine: Failed to open audit socket");
      renewed = rules_.Renew(socket, sights);
    } catch (const edr::RuleEngineException& error) {
      ZLOG_ERROR("RuleEngine: Failed to put rules into force again: " << error.what());
    }
    // Whoever is told looks through all folders: not for a rule that is refused once a second.
    if (!renewed.empty()) TellWatchedFolders();
  }
  KeepFoundObjects(renewed);
  return true;
}

// One look a place tells all rules that stand there or above.
void RuleEngine::KeepFoundObjects(const std::vector<internal::InstalledRules::Renewed>& renewed) {
  std::set<internal::WatchedPlace> places;
  for (const auto& [rule, is_new] : renewed) {
    if (!is_new) continue;
    const internal::WatchedPlace place{rule->GetType(), internal::RulePaths::Tidy(rule->GetPath())};
    if (places.insert(place).second) KeepFoundObjectsOf(*rule);
  }
}

// What was made before the kernel had the rule, nobody has told of.
void RuleEngine::KeepFoundObjectsOf(const edr::EventRule& rule) {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  std::vector<std::unique_ptr<edr::Event>> found;
  if (rule.GetType() == ObjectType::Directory) {
    found = internal::MakeFoundEntries(rule.GetPath(), rule.GetId(), now, file_context_, kMostEntries);
  } else if (auto file = internal::MakeFoundObject(rule.GetPath(), rule.GetId(), now, file_context_)) {
    found.push_back(std::move(file));
  }
  const std::lock_guard lock(found_mutex_);
  std::size_t kept = 0;
  for (; kept < found.size() && !IsFoundFull(); ++kept) {
    const std::uint64_t bytes = edr::EstimateBytes(*found[kept]);
    found_objects_.push_back({std::move(found[kept]), bytes});
    found_bytes_ += bytes;
  }
  if (kept == found.size()) return;
  counters_.Add(IntakeCounters::Reason::NotProcessed, found.size() - kept);
  if (std::exchange(found_bound_told_, true)) return;
  ZLOG_WARNING("RuleEngine: No room to report what was found at " << rule.GetPath() << ": " << found_objects_.size()
                                                                  << " objects wait");
}

bool RuleEngine::IsFoundFull() const {
  return found_objects_.size() >= kMostFoundObjects || found_bytes_ >= kMostFoundObjects * edr::kOrdinaryEventBytes;
}

bool RuleEngine::RouteFoundObjects() {
  std::vector<std::unique_ptr<edr::Event>> found;
  bool is_more_left = false;
  {
    const std::lock_guard lock(found_mutex_);
    for (; !found_objects_.empty() && found.size() < kMostRoutedAtOnce; found_objects_.pop_front()) {
      found_bytes_ -= found_objects_.front().bytes;
      found.push_back(std::move(found_objects_.front().event));
    }
    is_more_left = !found_objects_.empty();
    if (!is_more_left) found_bound_told_ = false;
  }
  for (auto& event : found) router_.Process(std::move(event));
  return is_more_left;
}

}  // namespace zagent::audit
