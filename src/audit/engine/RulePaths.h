#pragma once

#include <compare>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "src/audit/engine/RuleTable.h"

namespace zagent::audit::internal {

// A rule of all tags.
struct RuleAddress {
  std::string tag;
  RuleKey key;
  auto operator<=>(const RuleAddress&) const = default;
};

// Finds the rules of files and folders that lie at a path or below it, at a cost that depends on how many these are.
// The caller serialises.
class RulePaths {
 public:
  // Rules of other types are passed over. Enters a rule once.
  void Insert(const RuleAddress& address, const edr::EventRule& rule);
  void Remove(const RuleAddress& address, const edr::EventRule& rule);
  void Clear() { addresses_.clear(); }

  [[nodiscard]] std::vector<RuleAddress> AtOrBelow(std::string_view path) const;

  // The path without doubled slashes, dots and a slash at its end.
  [[nodiscard]] static std::string Tidy(std::string_view path);

 private:
  std::multimap<std::string, RuleAddress, std::less<>> addresses_;  // by tidy path
};

}  // namespace zagent::audit::internal
