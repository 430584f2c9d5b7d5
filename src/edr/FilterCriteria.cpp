#include "src/edr/FilterCriteria.h"

#include <algorithm>

#include "common/src/util/Log.h"

namespace zagent::edr {

bool FilterCriteria::MatchPattern(const PathGlob& pattern, std::string_view value) const {
  const bool matched = pattern.Matches(value);
  ZLOG_DEBUG("Pattern: " << pattern.GetPattern() << (matched ? " matched with value: " : " not matched with value: ")
                         << value);
  return matched;
}

bool FilterCriteria::MatchesAny(std::string_view value) const {
  return std::any_of(patterns_.begin(), patterns_.end(),
                     [&](const PathGlob& pattern) { return MatchPattern(pattern, value); });
}

std::vector<PathGlob> FilterCriteria::ParsePatterns(const rapidjson::Value& json) {
  constexpr const char* kInvalid = "Invalid value for filter patterns";
  if (!json.IsArray()) throw FilterCriteriaException(kInvalid);
  std::vector<PathGlob> patterns;
  patterns.reserve(json.Size());
  for (rapidjson::SizeType i = 0; i < json.Size(); ++i) {
    const common::util::JsonPlace place = {std::to_string(i)};
    if (!json[i].IsString()) throw FilterCriteriaException(kInvalid, place);
    const std::string pattern = common::util::ToString(json[i]);
    if (pattern.empty()) throw FilterCriteriaException("Filter pattern cannot be empty", place);
    const bool is_anchored = pattern.front() == '/' || pattern.front() == '*';
    patterns.emplace_back(is_anchored ? pattern : "*/" + pattern);
  }
  return patterns;
}

}  // namespace zagent::edr
