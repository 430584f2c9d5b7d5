#pragma once

#include <compare>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "src/audit/engine/RuleTable.h"
#include "src/audit/engine/WatchedPlace.h"

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
  // Whether rules of this type have such a path.
  [[nodiscard]] static bool Takes(edr::ObjectType type);

  // Rules of other types are passed over. Enters a rule once.
  void Insert(const RuleAddress& address, const edr::EventRule& rule);
  void Remove(const RuleAddress& address, const edr::EventRule& rule);
  void Clear() { addresses_.clear(); }

  [[nodiscard]] std::vector<RuleAddress> AtOrBelow(std::string_view path) const;
  [[nodiscard]] std::vector<RuleAddress> At(const WatchedPlace& place) const;

  // Rules in all.
  [[nodiscard]] std::size_t GetSize() const { return addresses_.size(); }
  // The places of `most` rules, or of all, that come behind this path in the order of paths; the first path follows the
  // last one. Of each path all places.
  [[nodiscard]] std::vector<WatchedPlace> PlacesAfter(std::string path, std::size_t most) const;

  // Of tidy paths.
  [[nodiscard]] static bool IsAtOrBelow(std::string_view path, std::string_view top);
  // The path without doubled slashes, dots and a slash at its end.
  [[nodiscard]] static std::string Tidy(std::string_view path);

 private:
  std::multimap<std::string, RuleAddress, std::less<>> addresses_;  // by tidy path
};

}  // namespace zagent::audit::internal
