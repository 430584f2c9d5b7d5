#pragma once

#include <string>

#include "common/src/util/Json.h"

// What all kinds of rule read of their JSON in the same way. Everything throws RuleFault.
namespace zagent::ioc::internal {

inline constexpr const char* kInvalidRule = "Invalid Rule json values";

// The text of a member that must be there. Paths and keys end at a NUL once the kernel sees them: there is none in it.
std::string MandatoryText(const rapidjson::Value& rule, const char* key);

// `ruleId`, which is not empty.
std::string ParseRuleId(const rapidjson::Value& rule);

// The path of a rule, tidy, without a slash at its end. It is not empty, but need not be one that can be watched.
std::string ParseRulePath(const rapidjson::Value& rule, const std::string& id);

// `notify` of a process or network rule: the array under `section`.
const rapidjson::Value& MandatoryNotify(const rapidjson::Value& rule, const char* section);

}  // namespace zagent::ioc::internal
