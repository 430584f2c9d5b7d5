#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "src/edr/Event.h"
#include "src/edr/PathGlob.h"
#include "src/fim/ManifestMistake.h"

namespace zagent::fim::internal {

// What is wrong in a filter object, and where in it.
class FilterException : public std::runtime_error {
 public:
  explicit FilterException(const std::string& reason, JsonPlace place = {})
      : std::runtime_error(reason), place_(std::move(place)) {}
  [[nodiscard]] const JsonPlace& Place() const { return place_; }

 private:
  JsonPlace place_;
};

// One inclusion or exclusion filter of a rule: up to four tests (object and patterns, user, time of day, process), of
// which a filter needs not have all. docs/MANIFESTS.md tells its JSON.
//
// Its path patterns continue the path of the rule that it belongs to.
class Filter {
 public:
  // Throws FilterException with the first thing that is wrong in the filter object.
  Filter(const rapidjson::Value& json, const std::string& rule_path);

  // The same filter for a rule of another path.
  [[nodiscard]] Filter ForPath(const std::string& rule_path) const;

  // Whether every test that the filter has holds. A rename has two paths: an inclusion filter is content with either of
  // them, an exclusion filter wants both, so that a file which is moved to a watched name is reported. A program that
  // only has the name of the one that is meant is not excluded by it.
  [[nodiscard]] bool Includes(const edr::Event& event) const { return Matches(event, Ends::Either); }
  [[nodiscard]] bool Excludes(const edr::Event& event) const;
  // Whether the filter tests the process, and that test holds.
  [[nodiscard]] bool NamesProgramOf(const edr::Event& event) const;

 private:
  enum class Ends : std::uint8_t { Either, Both };  // of a rename

  void ParseObject(const rapidjson::Value& json);
  void ParseTimespan(const rapidjson::Value& json);
  void CompilePatterns(const std::string& rule_path);

  [[nodiscard]] bool Matches(const edr::Event& event, Ends ends) const;
  [[nodiscard]] bool MatchesObject(const edr::Event& event, Ends ends) const;
  [[nodiscard]] bool MatchesPath(const std::string& path) const;
  [[nodiscard]] bool MatchesUser(const edr::Event& event) const;
  [[nodiscard]] bool MatchesTime(const edr::Event& event) const;
  [[nodiscard]] bool MatchesProcess(const edr::Event& event) const;

  std::optional<edr::ObjectType> object_type_;
  std::vector<std::string> patterns_;      // as the manifest has them, "*/" put before bare names
  std::vector<edr::PathGlob> path_globs_;  // the rule's path and each pattern
  std::vector<edr::PathGlob> process_globs_;
  std::vector<edr::PathGlob> user_globs_;
  int start_second_ = 0;  // of the day, UTC; start and end the same: the whole day
  int end_second_ = 0;
};

}  // namespace zagent::fim::internal
