#include "src/audit/engine/RulePaths.h"

#include <algorithm>

namespace zagent::audit::internal {
namespace {

bool HasPath(const RuleAddress& address) {
  return address.key.type == edr::ObjectType::File || address.key.type == edr::ObjectType::Directory;
}

}  // namespace

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

void RulePaths::Insert(const RuleAddress& address, const edr::EventRule& rule) {
  if (!HasPath(address)) return;
  Remove(address, rule);
  addresses_.emplace(Tidy(rule.GetPath()), address);
}

void RulePaths::Remove(const RuleAddress& address, const edr::EventRule& rule) {
  if (!HasPath(address)) return;
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

}  // namespace zagent::audit::internal
