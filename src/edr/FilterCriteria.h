#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "common/src/util/JsonPlace.h"
#include "src/edr/Event.h"
#include "src/edr/PathGlob.h"

namespace zagent::edr {

// What is wrong in a criterion's JSON, and where in it; or why an event cannot be held against a criterion.
class FilterCriteriaException : public std::runtime_error {
 public:
  explicit FilterCriteriaException(const std::string& reason, common::util::JsonPlace place = {})
      : std::runtime_error(reason), place_(std::move(place)) {}
  [[nodiscard]] const common::util::JsonPlace& Place() const { return place_; }

 private:
  common::util::JsonPlace place_;
};

// One test of an event against a list of patterns: a part of a filter group of a rule. Immutable once built; read by
// any thread.
class FilterCriteria {
 public:
  enum class Group : std::uint8_t { Inclusion, Exclusion };  // that the criterion belongs to

  // Logs the outcome at Debug.
  [[nodiscard]] virtual bool MatchPattern(const PathGlob& pattern, std::string_view value) const;
  virtual ~FilterCriteria() = default;
  FilterCriteria(const FilterCriteria&) = delete;
  FilterCriteria& operator=(const FilterCriteria&) = delete;

  // Throws FilterCriteriaException when the event does not tell what the criterion asks for.
  [[nodiscard]] virtual bool Match(const Event& event) const = 0;

  // An array of globs that are not empty. One that begins with neither "/" nor "*" gets "*/" in front: a bare name
  // matches in any folder. Throws FilterCriteriaException.
  [[nodiscard]] static std::vector<PathGlob> ParsePatterns(const rapidjson::Value& json);

 protected:
  explicit FilterCriteria(Group group, std::vector<PathGlob> patterns = {})
      : group_(group), patterns_(std::move(patterns)) {}

  [[nodiscard]] bool IsExclusion() const { return group_ == Group::Exclusion; }
  [[nodiscard]] const std::vector<PathGlob>& GetPatterns() const { return patterns_; }
  [[nodiscard]] bool MatchesAny(std::string_view value) const;

 private:
  const Group group_;
  const std::vector<PathGlob> patterns_;
};

}  // namespace zagent::edr
