#include "src/ioc/rules/RuleJson.h"

#include "src/edr/LexicalPath.h"
#include "src/ioc/rules/RuleFault.h"

namespace zagent::ioc::internal {

using common::util::FindMember;

std::string MandatoryText(const rapidjson::Value& rule, const char* key) {
  const rapidjson::Value* member = FindMember(rule, key);
  if (member == nullptr || !member->IsString()) throw RuleFault(kInvalidRule, {key});
  std::string text = common::util::ToString(*member);
  if (text.find('\0') != std::string::npos) throw RuleFault(kInvalidRule, {key});
  return text;
}

std::string ParseRuleId(const rapidjson::Value& rule) {
  std::string id = MandatoryText(rule, "ruleId");
  if (id.empty()) throw RuleFault(kInvalidRule, {"ruleId"});
  return id;
}

std::string ParseRulePath(const rapidjson::Value& rule, const std::string& id) {
  const std::string path = MandatoryText(rule, "imagePath");
  if (path.empty()) throw RuleFault("Empty Rule Path for id:" + id, {"imagePath"});
  return edr::Tidy(path);
}

const rapidjson::Value& MandatoryNotify(const rapidjson::Value& rule, const char* section) {
  const rapidjson::Value* notify = FindMember(rule, "notify");
  if (notify == nullptr || !notify->IsObject()) throw RuleFault(kInvalidRule, {"notify"});
  const rapidjson::Value* words = FindMember(*notify, section);
  if (words == nullptr) throw RuleFault(kInvalidRule, {"notify"});
  if (!words->IsArray()) throw RuleFault(kInvalidRule, {"notify", section});
  return *words;
}

}  // namespace zagent::ioc::internal
