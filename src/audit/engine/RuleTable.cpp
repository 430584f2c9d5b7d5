#include "src/audit/engine/RuleTable.h"

#include <set>
#include <utility>

#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

void MergeValues(const edr::Trie& paths, const common::ImageInfo* file, edr::Trie::Values& values) {
  if (file == nullptr || !file->GetPath().starts_with('/')) return;
  for (auto& [id, tags] : paths.GetValues(file->GetPath())) values[id].merge(tags);
}

WatchedFolder FolderOf(const edr::EventRule& rule) {
  std::string path = rule.GetPath().substr(0, rule.GetPath().find_last_not_of('/') + 1);
  const bool is_folder = rule.GetType() == edr::ObjectType::Directory;
  if (!is_folder) path = path.substr(0, path.rfind('/'));
  return {path.empty() ? "/" : path, is_folder};
}

}  // namespace

void RuleTable::Insert(const std::string& tag, const Rule& rule) {
  const Rule old = Find(tag, rule->GetId());
  if (old == rule) return;
  paths_->Insert(rule->GetId(), tag, rule->GetPath());
  if (old && old->GetPath() != rule->GetPath()) paths_->Delete(old->GetId(), tag, old->GetPath());
  rules_[tag][rule->GetId()] = rule;
}

void RuleTable::Remove(const std::string& tag, const std::string& id) {
  const Rule rule = Find(tag, id);
  if (!rule) return;
  paths_->Delete(id, tag, rule->GetPath());
  RulesById& of_tag = rules_[tag];
  of_tag.erase(id);
  if (of_tag.empty()) rules_.erase(tag);
}

void RuleTable::Clear() {
  rules_.clear();
  paths_.emplace();
}

RuleTable::Rule RuleTable::Find(const std::string& tag, const std::string& id) const {
  const auto of_tag = rules_.find(tag);
  if (of_tag == rules_.end()) return nullptr;
  const auto found = of_tag->second.find(id);
  return found == of_tag->second.end() ? nullptr : found->second;
}

std::vector<WatchedFolder> RuleTable::WatchedFolders() const {
  std::set<WatchedFolder> folders;
  for (const auto& [tag, rules] : rules_) {
    for (const auto& [id, rule] : rules) {
      const edr::ObjectType type = rule->GetType();
      if (type == edr::ObjectType::File || type == edr::ObjectType::Directory) folders.insert(FolderOf(*rule));
    }
  }
  return {folders.begin(), folders.end()};
}

std::map<std::string, std::vector<std::string>> RuleTable::FindByPathOf(const edr::Event& event) const {
  edr::Trie::Values values;
  MergeValues(*paths_, event.GetFile(), values);
  if (event.GetType() == edr::EventType::Rename) MergeValues(*paths_, event.GetNewFile(), values);
  std::map<std::string, std::vector<std::string>> ids_by_tag;
  for (const auto& [id, tags] : values) {
    for (const std::string& tag : tags) ids_by_tag[tag].push_back(id);
  }
  return ids_by_tag;
}

}  // namespace zagent::audit::internal
