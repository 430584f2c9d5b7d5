#include "src/fim/Manifest.h"

#include <algorithm>

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim {
namespace {

// A well-formed manifest has nine levels. Writing a value to the log recurses, so depth is limited before.
constexpr int kMaxNesting = 32;

bool IsNestedDeeperThan(const rapidjson::Value& value, int limit) {
  if (!value.IsObject() && !value.IsArray()) return false;
  if (limit == 0) return true;
  if (value.IsArray()) {
    const auto elements = value.GetArray();
    return std::any_of(elements.begin(), elements.end(),
                       [&](const rapidjson::Value& element) { return IsNestedDeeperThan(element, limit - 1); });
  }
  const auto members = value.GetObject();
  return std::any_of(members.begin(), members.end(), [&](const rapidjson::Value::Member& member) {
    return IsNestedDeeperThan(member.value, limit - 1);
  });
}

const rapidjson::Value& Mandatory(const rapidjson::Value& object, const char* key) {
  const rapidjson::Value* member = common::util::FindMember(object, key);
  if (member == nullptr) throw ManifestException(std::string("Missing mandatory element: ") + key);
  return *member;
}

std::shared_ptr<const internal::EventRule> ParseRule(const rapidjson::Value& json) {
  ZLOG_DEBUG("Parsing Rule: " << common::util::WriteJson(json));
  try {
    return std::make_shared<const internal::EventRule>(json);
  } catch (const edr::EventRuleException& error) {
    throw ManifestException(error.what());
  }
}

}  // namespace

Manifest::Manifest(const rapidjson::Value& document) {
  if (IsNestedDeeperThan(document, kMaxNesting)) throw ManifestException("Manifest is nested too deeply");
  const rapidjson::Value& fim = Mandatory(Mandatory(document, "data"), "fim");

  const rapidjson::Value& version = Mandatory(fim, "policyVersion");
  if (!version.IsString()) throw ManifestException("policyVersion is not string");
  policy_version_ = common::util::ToString(version);
  if (policy_version_ != "1.0") {
    ZLOG_WARNING("Unknown version [" << policy_version_ << "] of FIM manifest. Skipping.");
    return;
  }

  const rapidjson::Value& hashes = Mandatory(fim, "collectHashes");
  if (!hashes.IsBool()) throw ManifestException("collectHashes is not boolean");
  collect_hashes_ = hashes.GetBool();

  const rapidjson::Value& rules = Mandatory(fim, "rules");
  if (!rules.IsArray()) throw ManifestException("Parsing failed. 'rules' section is not an array.");
  for (const rapidjson::Value& rule : rules.GetArray()) rules_.push_back(ParseRule(rule));
}

}  // namespace zagent::fim
