#include "src/audit/engine/RulePaths.h"

#include <algorithm>
#include <set>

namespace zagent::audit::internal {

bool RulePaths::Takes(edr::ObjectType type) {
  return type == edr::ObjectType::File || type == edr::ObjectType::Directory;
}

std::string RulePaths::Tidy(std::string_view path) {
  std::string tidy;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view name = path.substr(begin, end - begin);
    if (!name.empty() && name != ".") tidy.append("/").append(name);
    begin = end + 1;
  }
  return tidy.empty() ? "/" : tidy;
}

bool RulePaths::IsAtOrBelow(std::string_view path, std::string_view top) {
  return top == "/" || (path.starts_with(top) && (path.size() == top.size() || path[top.size()] == '/'));
}

void RulePaths::Insert(const RuleAddress& address, const edr::EventRule& rule) {
  if (!Takes(address.key.type)) return;
  Remove(address, rule);
  addresses_.emplace(Tidy(rule.GetPath()), address);
}

void RulePaths::Remove(const RuleAddress& address, const edr::EventRule& rule) {
  if (!Takes(address.key.type)) return;
  auto [entry, end] = addresses_.equal_range(Tidy(rule.GetPath()));
  while (entry != end && entry->second != address) ++entry;
  if (entry != end) addresses_.erase(entry);
}

std::vector<RuleAddress> RulePaths::AtOrBelow(std::string_view path) const {
  std::vector<RuleAddress> found;
  const std::string top = Tidy(path);
  const auto [first, last] = addresses_.equal_range(top);
  for (auto entry = first; entry != last; ++entry) found.push_back(entry->second);
  const std::string below = top == "/" ? top : top + "/";
  for (auto entry = addresses_.lower_bound(below); entry != addresses_.end() && entry->first.starts_with(below);
       ++entry) {
    if (entry->first != top) found.push_back(entry->second);
  }
  return found;
}

std::vector<RuleAddress> RulePaths::At(const WatchedPlace& place) const {
  std::vector<RuleAddress> found;
  const auto [first, last] = addresses_.equal_range(place.path);
  for (auto entry = first; entry != last; ++entry) {
    if (entry->second.key.type == place.type) found.push_back(entry->second);
  }
  return found;
}

std::vector<WatchedPlace> RulePaths::PlacesAfter(std::string path, std::size_t most) const {
  std::vector<WatchedPlace> places;
  for (std::size_t taken = 0; taken < std::min(most, addresses_.size());) {
    const auto next = addresses_.upper_bound(path);
    const auto [first, last] =
        addresses_.equal_range(next != addresses_.end() ? next->first : addresses_.begin()->first);
    path = first->first;
    std::set<edr::ObjectType> types;
    for (auto entry = first; entry != last; ++entry, ++taken) types.insert(entry->second.key.type);
    for (const edr::ObjectType type : types) places.push_back({type, path});
  }
  return places;
}

}  // namespace zagent::audit::internal
