#include "src/audit/engine/RuleTable.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "src/audit/rules/KernelRules.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

using edr::ObjectType;

void MergeValues(const edr::Trie& paths, const common::ImageInfo* file, edr::Trie::Values& values) {
  if (file == nullptr || !file->GetPath().starts_with('/')) return;
  for (auto& [id, tags] : paths.GetValues(file->GetPath())) values[id].merge(tags);
}

RuleTable::IdsByTag ByTag(const edr::Trie::Values& values) {
  RuleTable::IdsByTag ids_by_tag;
  for (const auto& [id, tags] : values) {
    for (const std::string& tag : tags) ids_by_tag[tag].push_back(id);
  }
  return ids_by_tag;
}

WatchedFolder FolderOf(const edr::EventRule& rule) {
  std::string path = rule.GetPath().substr(0, rule.GetPath().find_last_not_of('/') + 1);
  const bool is_folder = rule.GetType() == ObjectType::Directory;
  if (!is_folder) path = path.substr(0, path.rfind('/'));
  return {path.empty() ? "/" : path, is_folder};
}

bool IsPathType(ObjectType type) {
  return type == ObjectType::File || type == ObjectType::Directory;
}

// The other type whose rules stand in the same index.
ObjectType TwinOf(ObjectType type) {
  return type == ObjectType::File ? ObjectType::Directory : ObjectType::File;
}

// Empty for a text that is not hexadecimal.
std::string FromHex(std::string_view text) {
  std::string bytes;
  if (text.size() % 2 != 0) return bytes;
  for (; !text.empty(); text.remove_prefix(2)) {
    unsigned byte = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + 2, byte, 16);
    if (error != std::errc() || end != text.data() + 2) return {};
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

// Empty for a process rule that has no path.
std::string ProcessPathOf(const edr::EventRule& rule) {
  try {
    return rule.GetPath().starts_with('/') ? rule.GetPath() : "";
  } catch (const edr::EventRuleException&) {
    return "";
  }
}

}  // namespace

std::optional<RuleTable::Place> RuleTable::PlaceOf(const edr::EventRule& rule) {
  if (IsPathType(rule.GetType())) return Place{&*paths_, rule.GetPath()};
  if (rule.GetType() != ObjectType::Process) return std::nullopt;
  std::string path = ProcessPathOf(rule);
  if (path.empty()) return std::nullopt;
  return Place{&*process_paths_, std::move(path)};
}

void RuleTable::Insert(const std::string& tag, const Rule& rule) {
  const RuleKey key = RuleKey::Of(*rule);
  const Rule old = Find(tag, key);
  if (old == rule) return;
  if (key.id.empty()) throw std::runtime_error("RuleTable::Insert: a rule has no id");
  if (key.type == ObjectType::Process) {
    const auto is_other = [&](const auto& of_tag) {
      const auto same = of_tag.second.find(rule->GetName());
      return same != of_tag.second.end() && (of_tag.first != tag || same->second != key.id);
    };
    if (std::any_of(process_names_.begin(), process_names_.end(), is_other)) {
      throw edr::RuleEngineException("Cannot add more than 1 process rule for '" + rule->GetName() + "'");
    }
  }
  const std::optional<Place> place = PlaceOf(*rule);
  if (place) place->index->Insert(key.id, tag, place->path);
  if (old) RemoveFromIndexes(tag, *old);
  // The old path may be the new one.
  if (place) place->index->Insert(key.id, tag, place->path);
  if (key.type == ObjectType::Process) process_names_[tag][rule->GetName()] = key.id;
  if (!old && IsPathType(key.type)) by_compared_part_[ComparedPart(key.id)].emplace(tag, key.id);
  rules_[tag][key] = rule;
}

void RuleTable::RemoveFromIndexes(const std::string& tag, const edr::EventRule& rule) {
  if (rule.GetType() == ObjectType::Process) process_names_[tag].erase(rule.GetName());
  const std::optional<Place> place = PlaceOf(rule);
  if (!place) return;
  place->index->Delete(rule.GetId(), tag, place->path);
  if (!IsPathType(rule.GetType())) return;
  // A file rule and a directory rule of one id may stand at one path.
  const Rule twin = Find(tag, {TwinOf(rule.GetType()), rule.GetId()});
  if (twin) paths_->Insert(twin->GetId(), tag, twin->GetPath());
}

void RuleTable::Remove(const std::string& tag, const RuleKey& key) {
  const Rule rule = Find(tag, key);
  if (!rule) return;
  RemoveFromIndexes(tag, *rule);
  const auto known = by_compared_part_.find(ComparedPart(key.id));
  if (IsPathType(key.type) && known != by_compared_part_.end()) {
    known->second.erase(known->second.find({tag, key.id}));
    if (known->second.empty()) by_compared_part_.erase(known);
  }
  RulesByKey& of_tag = rules_[tag];
  of_tag.erase(key);
  if (!of_tag.empty()) return;
  rules_.erase(tag);
  process_names_.erase(tag);
}

void RuleTable::Clear() {
  rules_.clear();
  process_names_.clear();
  by_compared_part_.clear();
  paths_.emplace();
  process_paths_.emplace();
}

std::shared_ptr<RuleTable> RuleTable::CopyWithout(const std::string& tag) const {
  auto copy = std::make_shared<RuleTable>();
  for (const auto& [other_tag, rules] : rules_) {
    if (other_tag == tag) continue;
    for (const auto& [key, rule] : rules) copy->Insert(other_tag, rule);
  }
  return copy;
}

std::size_t RuleTable::GetSize() const {
  std::size_t size = 0;
  for (const auto& [tag, rules] : rules_) size += rules.size();
  return size;
}

RuleTable::Rule RuleTable::Find(const std::string& tag, const RuleKey& key) const {
  const auto of_tag = rules_.find(tag);
  if (of_tag == rules_.end()) return nullptr;
  const auto found = of_tag->second.find(key);
  return found == of_tag->second.end() ? nullptr : found->second;
}

bool RuleTable::HasProcessRules() const {
  for (const auto& [tag, names] : process_names_) {
    if (!names.empty()) return true;
  }
  return false;
}

std::vector<WatchedFolder> RuleTable::WatchedFolders() const {
  std::set<WatchedFolder> folders;
  for (const auto& [tag, rules] : rules_) {
    for (const auto& [key, rule] : rules) {
      if (IsPathType(key.type)) folders.insert(FolderOf(*rule));
    }
  }
  return {folders.begin(), folders.end()};
}

RuleTable::IdsByTag RuleTable::FindFor(const edr::Event& event) const {
  const ObjectType type = event.GetObjectType();
  return IsPathType(type) ? FindByPathOf(event) : FindAllOf(type);
}

RuleTable::IdsByTag RuleTable::FindAllOf(ObjectType type) const {
  IdsByTag ids_by_tag;
  for (const auto& [tag, rules] : rules_) {
    for (auto rule = rules.lower_bound({type, ""}); rule != rules.end() && rule->first.type == type; ++rule) {
      ids_by_tag[tag].push_back(rule->first.id);
    }
  }
  return ids_by_tag;
}

RuleTable::IdsByTag RuleTable::FindByPathOf(const edr::Event& event) const {
  edr::Trie::Values values;
  const common::ImageInfo* const file = event.GetFile();
  if (file != nullptr && file->GetPath().starts_with('/')) values = paths_->GetValues(file->GetPath());
  if (event.GetType() == edr::EventType::Rename) MergeValues(*paths_, event.GetNewFile(), values);
  return ByTag(values);
}

RuleTable::IdsByTag RuleTable::FindAt(const std::string& path) const {
  return path.starts_with('/') ? ByTag(paths_->GetValues(path)) : IdsByTag();
}

RuleTable::IdsByTag RuleTable::FindByAuditKey(const std::string& key) const {
  for (const std::string& id : {key, FromHex(key)}) {
    const auto known = by_compared_part_.find(ComparedPart(id));
    if (id.empty() || known == by_compared_part_.end()) continue;
    std::map<std::string, std::set<std::string>> exact, similar;
    for (const auto& [tag, known_id] : known->second) (known_id == id ? exact : similar)[tag].insert(known_id);
    IdsByTag ids_by_tag;
    for (const auto& [tag, ids] : exact.empty() ? similar : exact) ids_by_tag[tag].assign(ids.begin(), ids.end());
    return ids_by_tag;
  }
  return {};
}

std::vector<RuleTable::Rule> RuleTable::RulesOfAuditKey(const std::string& key) const {
  return RulesOf(FindByAuditKey(key));
}

std::vector<RuleTable::Rule> RuleTable::RulesOf(const IdsByTag& ids_by_tag) const {
  std::vector<Rule> rules;
  for (const auto& [tag, ids] : ids_by_tag) {
    for (const std::string& id : ids) {
      for (const ObjectType type : {ObjectType::File, ObjectType::Directory}) {
        if (Rule rule = Find(tag, {type, id})) rules.push_back(std::move(rule));
      }
    }
  }
  return rules;
}

RuleTable::IdsByTag RuleTable::FindProcessRulesAt(const std::string& path) const {
  return path.starts_with('/') ? ByTag(process_paths_->GetValues(path)) : IdsByTag();
}

}  // namespace zagent::audit::internal
