#pragma once

#include <compare>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/events/WatchedFolder.h"
#include "src/edr/Event.h"
#include "src/edr/EventRule.h"
#include "src/edr/Trie.h"

namespace zagent::audit::internal {

// What tells the rules of one tag apart: rules of different types may use one id.
struct RuleKey {
  edr::ObjectType type = edr::ObjectType::File;
  std::string id;
  auto operator<=>(const RuleKey&) const = default;

  static RuleKey Of(const edr::EventRule& rule) { return {rule.GetType(), rule.GetId()}; }
};

// The rules in force, by tag, type and id; those of files and folders by their paths, too. Two tags may use the same
// id, and so may two types. The caller serialises.
class RuleTable {
 public:
  using Rule = std::shared_ptr<const edr::EventRule>;
  using RulesByKey = std::map<RuleKey, Rule>;
  // Tag to the ids of its rules, in order, each once.
  using IdsByTag = std::map<std::string, std::vector<std::string>>;

  RuleTable() { Clear(); }

  // Enters a rule; another one of the same tag, type and id makes way. Throws, and changes nothing: std::runtime_error
  // for a rule without id, or one of a file or folder without an absolute path; edr::RuleEngineException "Cannot add
  // more than 1 process rule for '<name>'" for a second process rule on one name, of whichever tag: a process has one
  // rule of its name.
  void Insert(const std::string& tag, const Rule& rule);
  void Remove(const std::string& tag, const RuleKey& key);
  void Clear();

  // Another table with the same rules, but for those of a tag.
  [[nodiscard]] std::shared_ptr<RuleTable> CopyWithout(const std::string& tag) const;
  [[nodiscard]] std::shared_ptr<RuleTable> Copy() const { return CopyWithout({}); }

  // Tag to rules.
  [[nodiscard]] const std::map<std::string, RulesByKey>& GetRules() const { return rules_; }
  [[nodiscard]] std::size_t GetSize() const;
  [[nodiscard]] bool IsEmpty() const { return rules_.empty(); }
  // Null when there is none.
  [[nodiscard]] Rule Find(const std::string& tag, const RuleKey& key) const;
  [[nodiscard]] bool HasProcessRules() const;

  // The folders of directory rules with all below them, and those that hold the files of file rules; each once.
  [[nodiscard]] std::vector<WatchedFolder> WatchedFolders() const;

  // The rules that an event concerns: all process rules, all network rules, or the rules that stand at the path of the
  // event's file or above it, for a rename at either end of it.
  [[nodiscard]] IdsByTag FindFor(const edr::Event& event) const;
  // As much of a file's path as tells which rules FindFor finds; empty for one that is not absolute.
  [[nodiscard]] std::string_view ToldPartOf(std::string_view path) const { return paths_->KnownPartOf(path); }
  // The rules of files and folders that stand at this path or above it.
  [[nodiscard]] IdsByTag FindAt(const std::string& path) const;
  // Whether a rule of a file or folder stands at this path or below it.
  [[nodiscard]] bool HasAtOrBelow(const std::string& path) const { return paths_->HasValuesAtOrBelow(path); }
  // The rules of files and folders that a key of the kernel's rules names, as the records tell it: in hexadecimal when
  // it has odd characters. What agrees in as much of its id as is compared counts when no id agrees as a whole.
  [[nodiscard]] IdsByTag FindByAuditKey(const std::string& key) const;
  // The rules of files and folders that these are.
  [[nodiscard]] std::vector<Rule> RulesOf(const IdsByTag& ids_by_tag) const;
  // The rules of FindByAuditKey themselves.
  [[nodiscard]] std::vector<Rule> RulesOfAuditKey(const std::string& key) const;
  // The process rules whose own path is this one or lies above it.
  [[nodiscard]] IdsByTag FindProcessRulesAt(const std::string& path) const;

 private:
  using NamesByTag = std::map<std::string, std::map<std::string, std::string>>;  // tag, name of a process rule, its id

  // The index that holds the rule's path, and the path; nothing for a rule without one.
  struct Place {
    edr::Trie* index;
    std::string path;
  };
  [[nodiscard]] std::optional<Place> PlaceOf(const edr::EventRule& rule);
  void RemoveFromIndexes(const std::string& tag, const edr::EventRule& rule);
  [[nodiscard]] IdsByTag FindAllOf(edr::ObjectType type) const;
  [[nodiscard]] IdsByTag FindByPathOf(const edr::Event& event) const;

  std::map<std::string, RulesByKey> rules_;
  // The compared part of an id, to the tags and whole ids of the file and directory rules that begin with it.
  std::map<std::string, std::multiset<std::pair<std::string, std::string>>> by_compared_part_;
  NamesByTag process_names_;
  // Of file and directory rules, and of process rules. Always there; made anew by Clear.
  std::optional<edr::Trie> paths_, process_paths_;
};

}  // namespace zagent::audit::internal
