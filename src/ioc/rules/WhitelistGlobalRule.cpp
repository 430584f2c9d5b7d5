#include "src/ioc/rules/WhitelistGlobalRule.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FilterParser.h"
#include "src/ioc/rules/RuleFault.h"
#include "src/ioc/rules/RuleJson.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;
using edr::ObjectType;

constexpr const char* kNotDefined = "Function not defined for whitelistglobal EDR rule";

constexpr std::array<std::pair<std::string_view, ObjectType>, 4> kWords = {{
    {"file", ObjectType::File},
    {"directory", ObjectType::Directory},
    {"process", ObjectType::Process},
    {"network", ObjectType::Network},
}};

std::set<ObjectType> ParseApplyTo(const rapidjson::Value& json) {
  ZLOG_DEBUG("Reading applyTo");
  const rapidjson::Value* words = FindMember(json, "applyTo");
  if (words == nullptr || !words->IsArray()) throw RuleFault("applyTo is not array", {"applyTo"});
  std::set<ObjectType> types;
  for (rapidjson::SizeType i = 0; i < words->Size(); ++i) {
    const rapidjson::Value& element = (*words)[i];
    const std::string word = element.IsString() ? common::util::ToString(element) : common::util::WriteJson(element);
    const auto known =
        std::find_if(kWords.begin(), kWords.end(), [&](const auto& entry) { return entry.first == word; });
    if (!element.IsString() || known == kWords.end()) {
      throw RuleFault("Invalid value in applyTo: " + word, {"applyTo", std::to_string(i)});
    }
    types.insert(known->second);
  }
  return types;
}

}  // namespace

WhitelistGlobalRule::WhitelistGlobalRule(const rapidjson::Value& json, const TtlProcessTree& tree) {
  ZLOG_DEBUG("Parsing WhitelistGlobal Rule");
  id_ = ParseRuleId(json);
  const rapidjson::Value* rule_class = FindMember(json, "ruleClass");
  if (rule_class == nullptr || !rule_class->IsString() || common::util::ToString(*rule_class) != "WhitelistGlobal") {
    throw edr::EventException("Invalid ruleClass for EDR rule type");
  }
  path_ = ParseRulePath(json, id_);
  normal_path_ = edr::LexicallyNormal(path_);
  apply_to_ = ParseApplyTo(json);
  exclusion_ = ParseExclusionFilters(json, RuleKind::Global, tree);
}

WhitelistGlobalRule::WhitelistGlobalRule(const WhitelistGlobalRule& other, const std::string& path)
    : id_(other.id_),
      path_(path),
      normal_path_(edr::LexicallyNormal(path)),
      apply_to_(other.apply_to_),
      exclusion_(other.exclusion_) {}

const edr::EventTypes& WhitelistGlobalRule::GetDirectoryActions() const {
  throw edr::EventRuleException(kNotDefined);
}

const edr::EventTypes& WhitelistGlobalRule::GetFileActions() const {
  throw edr::EventRuleException(kNotDefined);
}

const edr::EventTypes& WhitelistGlobalRule::GetProcessActions() const {
  throw edr::EventRuleException(kNotDefined);
}

const edr::EventTypes& WhitelistGlobalRule::GetNetworkActions() const {
  throw edr::EventRuleException(kNotDefined);
}

edr::EventType WhitelistGlobalRule::GetEventType() const {
  throw edr::EventRuleException(kNotDefined);
}

edr::MatchResult WhitelistGlobalRule::Match(const edr::Event& event) const {
  const bool holds = apply_to_.count(event.GetObjectType()) != 0 && IsProgramOf(event) && AnyHolds(exclusion_, event);
  return holds ? edr::MatchResult::RefusedByFilter : edr::MatchResult::Matched;
}

bool WhitelistGlobalRule::IsProgramOf(const edr::Event& event) const {
  const NormalPath image(event.GetImage());
  if (image.Get().empty()) return false;
  return image.Get() == normal_path_ || FolderOf(image.Get()) == normal_path_;
}

}  // namespace zagent::ioc::internal
