#include "src/manifest_check/UnknownKeys.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

namespace zagent::manifest_check {
namespace {

using common::util::FindMember;
using fim::JsonPlace;
using fim::ManifestMistake;
using fim::Within;

constexpr std::array<std::string_view, 3> kManifestKeys = {"policyVersion", "collectHashes", "rules"};
constexpr std::array<std::string_view, 8> kRuleKeys = {
    "ruleId", "ruleType",         "imagePath",        "recursiveDepth",
    "notify", "inclusionFilters", "exclusionFilters", "trackContentChange"};
constexpr std::array<std::string_view, 6> kFilterKeys = {"objectType",    "patterns",      "actorProcess",
                                                         "actorUsername", "timespanStart", "timespanEnd"};
constexpr std::array<std::pair<const char*, const char*>, 2> kSections = {
    {{"inclusionFilters", "inclusionFilter"}, {"exclusionFilters", "exclusionFilter"}}};

class Search {
 public:
  std::vector<ManifestMistake> Run(const rapidjson::Value& fim) {
    const JsonPlace place = {"data", "fim"};
    LookAt(fim, kManifestKeys, place);
    const rapidjson::Value& rules = *FindMember(fim, "rules");
    for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) {
      rule_id_ = common::util::ToString(*FindMember(rules[i], "ruleId"));
      LookAtRule(rules[i], Within(place, {"rules", std::to_string(i)}));
    }
    return std::move(found_);
  }

 private:
  void LookAtRule(const rapidjson::Value& rule, const JsonPlace& place) {
    LookAt(rule, kRuleKeys, place);
    for (const auto& [section, wrapper] : kSections) {
      const rapidjson::Value* filters = FindMember(rule, section);
      if (filters == nullptr) continue;
      for (rapidjson::SizeType i = 0; i < filters->Size(); ++i) {
        LookAtFilter((*filters)[i], wrapper, Within(place, {section, std::to_string(i)}));
      }
    }
  }

  void LookAtFilter(const rapidjson::Value& filter, const char* wrapper, const JsonPlace& place) {
    if (const rapidjson::Value* wrapped = FindMember(filter, wrapper)) {
      LookAt(filter, std::array<std::string_view, 1>{wrapper}, place);
      LookAt(*wrapped, kFilterKeys, Within(place, {wrapper}));
    } else {
      LookAt(filter, kFilterKeys, place);
    }
  }

  template <std::size_t Count>
  void LookAt(const rapidjson::Value& object, const std::array<std::string_view, Count>& known,
              const JsonPlace& place) {
    for (const auto& member : object.GetObject()) {
      const std::string key = common::util::ToString(member.name);
      if (std::find(known.begin(), known.end(), key) != known.end()) continue;
      found_.push_back({"Unknown key, which is passed over", Within(place, {key}), rule_id_});
    }
  }

  std::string rule_id_;
  std::vector<ManifestMistake> found_;
};

}  // namespace

std::vector<ManifestMistake> FindUnknownKeys(const rapidjson::Value& document) {
  return Search().Run(*FindMember(*FindMember(document, "data"), "fim"));
}

}  // namespace zagent::manifest_check
