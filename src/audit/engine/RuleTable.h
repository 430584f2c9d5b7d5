#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/WatchedFolder.h"
#include "src/edr/Event.h"
#include "src/edr/EventRule.h"
#include "src/edr/Trie.h"

namespace zagent::audit::internal {

// The rules in force, by tag and id, and by path. Two tags may use the same id. The caller serialises.
class RuleTable {
 public:
  using Rule = std::shared_ptr<const edr::EventRule>;
  using RulesById = std::map<std::string, Rule>;

  RuleTable() { Clear(); }

  // Enters a rule; another one of the same tag and id makes way. Throws std::runtime_error, and changes nothing, for a
  // rule without id or absolute path.
  void Insert(const std::string& tag, const Rule& rule);
  void Remove(const std::string& tag, const std::string& id);
  void Clear();

  // Tag to rules.
  [[nodiscard]] const std::map<std::string, RulesById>& GetRules() const { return rules_; }
  // Null when there is none.
  [[nodiscard]] Rule Find(const std::string& tag, const std::string& id) const;

  // The folders of directory rules with all below them, and those that hold the files of file rules; each once.
  [[nodiscard]] std::vector<WatchedFolder> WatchedFolders() const;

  // Tag to the ids of the rules that stand at the path of the event's file or above it, in order; for a rename at
  // either end of it.
  [[nodiscard]] std::map<std::string, std::vector<std::string>> FindByPathOf(const edr::Event& event) const;

 private:
  std::map<std::string, RulesById> rules_;
  std::optional<edr::Trie> paths_;  // always there; made anew by Clear
};

}  // namespace zagent::audit::internal
