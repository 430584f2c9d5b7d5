#include "src/manifest_check/DoubtfulFilters.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace zagent::manifest_check {
namespace {

using common::util::FindMember;
using common::util::ToString;
using fim::JsonPlace;
using fim::ManifestMistake;
using fim::Within;

constexpr std::array<const char*, 3> kGlobKeys = {"patterns", "actorProcess", "actorUsername"};

// Moves `at` behind the character that it stands on, or behind both of "\x". False at the end, and for a last
// backslash.
bool Pass(std::string_view glob, std::size_t& at) {
  at += at < glob.size() && glob[at] == '\\' ? 2 : 1;
  return at <= glob.size();
}

// Every "[" has its "]", and every "\" a character behind it. In a class the character behind "-" is an end of a range,
// whatever it is.
bool IsWellFormed(std::string_view glob) {
  for (std::size_t at = 0; at < glob.size();) {
    const bool is_class = glob[at] == '[';
    if (!Pass(glob, at)) return false;
    if (!is_class) continue;
    if (at < glob.size() && glob[at] == '!') ++at;
    while (at < glob.size() && glob[at] != ']') {
      if (!Pass(glob, at)) return false;
      if (at < glob.size() && glob[at] == '-') at += 2;
    }
    if (at >= glob.size()) return false;
    ++at;
  }
  return true;
}

bool HasElements(const rapidjson::Value* array) {
  return array != nullptr && !array->Empty();
}

// Whether the filter leaves the time out, or has the span that means the whole day.
bool IsOfAnyTime(const rapidjson::Value& filter) {
  const rapidjson::Value* start = FindMember(filter, "timespanStart");
  const rapidjson::Value* end = FindMember(filter, "timespanEnd");
  return start == nullptr || end == nullptr || ToString(*start) == ToString(*end);
}

bool HasNoCondition(const rapidjson::Value& filter) {
  return IsOfAnyTime(filter) && std::none_of(kGlobKeys.begin(), kGlobKeys.end(),
                                             [&](const char* key) { return HasElements(FindMember(filter, key)); });
}

class Search {
 public:
  std::vector<ManifestMistake> Run(const rapidjson::Value& fim) {
    const rapidjson::Value& rules = *FindMember(fim, "rules");
    for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) {
      rule_id_ = ToString(*FindMember(rules[i], "ruleId"));
      LookAtRule(rules[i], {"data", "fim", "rules", std::to_string(i)});
    }
    return std::move(found_);
  }

 private:
  void LookAtRule(const rapidjson::Value& rule, const JsonPlace& place) {
    const rapidjson::Value* inclusions = FindMember(rule, "inclusionFilters");
    const rapidjson::Value* exclusions = FindMember(rule, "exclusionFilters");
    if (inclusions != nullptr) LookAtGlobs(*inclusions, "inclusionFilter", Within(place, {"inclusionFilters"}));
    if (exclusions == nullptr) return;
    const JsonPlace place_of_exclusions = Within(place, {"exclusionFilters"});
    LookAtGlobs(*exclusions, "exclusionFilter", place_of_exclusions);
    if (!HasElements(inclusions)) {
      LookForConditions(*exclusions, place_of_exclusions);
    } else if (HasElements(exclusions)) {
      Add("Not looked at, because the rule has inclusion filters", place_of_exclusions);
    }
  }

  void LookAtGlobs(const rapidjson::Value& filters, const char* wrapper, const JsonPlace& place) {
    for (rapidjson::SizeType i = 0; i < filters.Size(); ++i) {
      const auto [filter, place_of_filter] = Unwrapped(filters[i], wrapper, Within(place, {std::to_string(i)}));
      for (const char* key : kGlobKeys) {
        const rapidjson::Value* globs = FindMember(*filter, key);
        for (rapidjson::SizeType j = 0; globs != nullptr && j < globs->Size(); ++j) {
          if (IsWellFormed(ToString((*globs)[j]))) continue;
          Add("Malformed glob, which does not match what it seems to",
              Within(place_of_filter, {key, std::to_string(j)}));
        }
      }
    }
  }

  void LookForConditions(const rapidjson::Value& exclusions, const JsonPlace& place) {
    for (rapidjson::SizeType i = 0; i < exclusions.Size(); ++i) {
      const auto [filter, place_of_filter] =
          Unwrapped(exclusions[i], "exclusionFilter", Within(place, {std::to_string(i)}));
      if (!HasNoCondition(*filter)) continue;
      const rapidjson::Value* type = FindMember(*filter, "objectType");
      const bool is_of_files = type != nullptr && ToString(*type) == "file";
      Add(is_of_files ? "Filter without a condition: it drops everything that happens to files"
                      : "Filter without a condition: it drops everything",
          place_of_filter);
    }
  }

  static std::pair<const rapidjson::Value*, JsonPlace> Unwrapped(const rapidjson::Value& element, const char* wrapper,
                                                                 JsonPlace place) {
    const rapidjson::Value* wrapped = FindMember(element, wrapper);
    if (wrapped == nullptr) return {&element, std::move(place)};
    return {wrapped, Within(std::move(place), {wrapper})};
  }

  void Add(std::string reason, JsonPlace place) { found_.push_back({std::move(reason), std::move(place), rule_id_}); }

  std::string rule_id_;
  std::vector<ManifestMistake> found_;
};

}  // namespace

std::vector<ManifestMistake> FindDoubtfulFilters(const rapidjson::Value& document) {
  return Search().Run(*FindMember(*FindMember(document, "data"), "fim"));
}

}  // namespace zagent::manifest_check
