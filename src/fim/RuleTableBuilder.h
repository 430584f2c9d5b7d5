#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/fim/EventRule.h"
#include "src/fim/RuleTable.h"

namespace zagent::fim::internal {

// Makes the rules of a table of those of manifests. Audit reports real objects only, so a rule on a symbolic link
// becomes two: the link itself under "<id>-1" and what it points to under the id of the manifest. Of two rules with one
// id the last holds, with a warning.
class RuleTableBuilder {
 public:
  using Ids = std::vector<std::string>;

  // Looks at the disk for links. Answers the ids of what it made of the rule; none when a link gives no rule.
  Ids Add(const std::shared_ptr<const EventRule>& rule);
  [[nodiscard]] RuleTable::Rules Take() { return std::move(rules_); }

 private:
  Ids AddSymlink(const EventRule& rule);
  void Derive(const EventRule& rule, const std::string& id, const std::string& path, Ids& derived);
  void Insert(const std::shared_ptr<const EventRule>& rule);

  RuleTable::Rules rules_;
};

}  // namespace zagent::fim::internal
