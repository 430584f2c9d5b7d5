#include "src/fim/Manifest.h"

#include "common/src/util/Log.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim {
namespace {

// A well-formed manifest has nine levels. Writing a value to the log recurses, so depth is limited before.
constexpr int kMaxNesting = 32;

[[noreturn]] void Fail(const std::string& reason, JsonPlace place) {
  throw ManifestException(std::vector<ManifestMistake>{ManifestMistake{reason, std::move(place), ""}});
}

const rapidjson::Value& Mandatory(const rapidjson::Value& object, const char* key, const JsonPlace& place) {
  const rapidjson::Value* member = common::util::FindMember(object, key);
  if (member == nullptr) Fail(std::string("Missing mandatory element: ") + key, place);
  return *member;
}

std::string IdOf(const rapidjson::Value& rule) {
  const rapidjson::Value* id = common::util::FindMember(rule, "ruleId");
  return id != nullptr && id->IsString() ? common::util::ToString(*id) : "";
}

}  // namespace

Manifest::Manifest(const rapidjson::Value& document) {
  if (common::util::IsNestedDeeperThan(document, kMaxNesting)) Fail("Manifest is nested too deeply", {});
  const rapidjson::Value& data = Mandatory(document, "data", {});
  const rapidjson::Value& fim = Mandatory(data, "fim", {"data"});

  const rapidjson::Value& version = Mandatory(fim, "policyVersion", {"data", "fim"});
  if (!version.IsString()) Fail("policyVersion is not string", {"data", "fim", "policyVersion"});
  policy_version_ = common::util::ToString(version);
  if (!HasKnownVersion()) {
    ZLOG_WARNING("Unknown version [" << policy_version_ << "] of FIM manifest. Skipping.");
    return;
  }

  const rapidjson::Value& hashes = Mandatory(fim, "collectHashes", {"data", "fim"});
  if (!hashes.IsBool()) Fail("collectHashes is not boolean", {"data", "fim", "collectHashes"});
  collect_hashes_ = hashes.GetBool();

  const rapidjson::Value& rules = Mandatory(fim, "rules", {"data", "fim"});
  if (!rules.IsArray()) Fail("Parsing failed. 'rules' section is not an array.", {"data", "fim", "rules"});
  ParseRules(rules);
}

void Manifest::ParseRules(const rapidjson::Value& rules) {
  std::vector<ManifestMistake> mistakes;
  for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) {
    ZLOG_DEBUG("Parsing Rule: " << common::util::WriteJson(rules[i]));
    try {
      rules_.push_back(std::make_shared<const internal::EventRule>(rules[i]));
    } catch (const internal::RuleFault& fault) {
      const JsonPlace place = {"data", "fim", "rules", std::to_string(i)};
      mistakes.push_back(ManifestMistake{fault.what(), Within(place, fault.Place()), IdOf(rules[i])});
    }
  }
  if (!mistakes.empty()) throw ManifestException(std::move(mistakes));
}

}  // namespace zagent::fim
