#include "src/ioc/rules/Manifest.h"

#include <array>
#include <cctype>
#include <string_view>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FileRule.h"
#include "src/ioc/rules/NetworkRule.h"
#include "src/ioc/rules/ProcessRule.h"
#include "src/ioc/rules/RuleFault.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;
using common::util::JsonPlace;
using common::util::Within;

constexpr const char* kSupportedVersion = "2.0.0";
constexpr std::array<const char*, 4> kMandatory = {"policyVersion", "policyId", "productId", "globalSettings"};
// A well-formed manifest has nine levels. Settings are copied level by level, so depth is limited before.
constexpr int kMaxNesting = 32;
constexpr int kBitsOfMiB = 20;

const rapidjson::Value& Mandatory(const rapidjson::Value& document, const char* key) {
  const rapidjson::Value* member = FindMember(document, key);
  if (member == nullptr) throw ManifestException(std::string("Missing mandatory element: ") + key);
  return *member;
}

[[noreturn]] void ThrowInvalid(const char* key, const char* expected, JsonPlace place) {
  throw ManifestException(std::string("Invalid value in manifest for ") + key + ": expected " + expected,
                          std::move(place));
}

struct Version {
  int major = 0;
  int minor = 0;
};

// The numbers before the first two points. What is no number is 0, and so is all behind it.
Version ParseVersion(std::string_view text) {
  Version version;
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos) return version;
  try {
    version.major = std::stoi(std::string(text.substr(0, point)));
    version.minor = std::stoi(std::string(text.substr(point + 1)));
  } catch (const std::logic_error& error) {
    ZLOG_ERROR("[\"Exception in converting manifest policyVersion to integer, error: \"]: " << error.what());
  }
  return version;
}

void CheckVersion(const rapidjson::Value& value) {
  if (!value.IsString()) ThrowInvalid("policyVersion", "a string", {"policyVersion"});
  const std::string provided = common::util::ToString(value);
  if (ParseVersion(provided).major >= ParseVersion(kSupportedVersion).major) return;
  ZLOG_ERROR("Manifest version not supported. Supported version: " << kSupportedVersion
                                                                   << ", Provided manifest version: " << provided);
  throw ManifestException("Parsing failed. Unsupported manifest version provided", {"policyVersion"});
}

std::string IdOf(const rapidjson::Value& rule) {
  const rapidjson::Value* id = FindMember(rule, "ruleId");
  return id != nullptr && id->IsString() ? common::util::ToString(*id) : "";
}

// "Invalid Rule json values (rule r1, key notify)".
std::string WithRuleAndKey(const char* reason, const rapidjson::Value& rule, const JsonPlace& place) {
  const std::string id = IdOf(rule);
  const std::string key = common::util::KeyText(place);
  std::string where = id.empty() ? "" : "rule " + id;
  if (!key.empty()) where += (where.empty() ? "key " : ", key ") + key;
  return where.empty() ? reason : std::string(reason) + " (" + where + ")";
}

[[noreturn]] void RefuseRule(const char* reason, const rapidjson::Value& rule, const JsonPlace& place) {
  const std::string detail = WithRuleAndKey(reason, rule, place);
  ZLOG_ERROR(detail);
  throw ManifestException("Rule parsing failed", place, detail);
}

}  // namespace

Manifest::Manifest(const rapidjson::Value& document, const TtlProcessTree& tree) {
  ZLOG_DEBUG("Reading Manifest");
  if (common::util::IsNestedDeeperThan(document, kMaxNesting)) throw ManifestException("Manifest is nested too deeply");
  for (const char* key : kMandatory) Mandatory(document, key);
  CheckVersion(Mandatory(document, "policyVersion"));
  ParseGlobalSettings(Mandatory(document, "globalSettings"));
  ParseKnownProcessPaths(document);
  ParseTaggingSettings(document);
  ParseRules(document, tree);
  const rapidjson::Value* heuristics = FindMember(document, "heuristicsEnabled");
  if (heuristics != nullptr && heuristics->IsBool()) is_heuristics_enabled_ = heuristics->GetBool();
}

const std::string& Manifest::GetGatewayUrl() const {
  if (!has_gateway_url_) throw ManifestException("Gateway URL is not present in the Manifest");
  return gateway_url_;
}

void Manifest::ParseGlobalSettings(const rapidjson::Value& settings) {
  if (!settings.IsObject()) ThrowInvalid("globalSettings", "an object", {"globalSettings"});
  if (const rapidjson::Value* size = FindMember(settings, "maxFileSizeToProcess")) {
    // The low bits of any integer.
    if (size->IsUint64()) {
      max_file_size_to_process_ = static_cast<std::uint16_t>(size->GetUint64());
    } else if (size->IsInt64()) {
      max_file_size_to_process_ = static_cast<std::uint16_t>(size->GetInt64());
    } else {
      ThrowInvalid("maxFileSizeToProcess", "an integer", {"globalSettings", "maxFileSizeToProcess"});
    }
  }
  if (const rapidjson::Value* url = FindMember(settings, "gateway_url")) {
    if (!url->IsString()) ThrowInvalid("gateway_url", "a string", {"globalSettings", "gateway_url"});
    gateway_url_ = common::util::ToString(*url);
    has_gateway_url_ = true;
  }
  if (const rapidjson::Value* metadata = FindMember(settings, "sendMetadata")) {
    if (!metadata->IsBool()) ThrowInvalid("sendMetadata", "a bool", {"globalSettings", "sendMetadata"});
    send_metadata_ = metadata->GetBool();
  }
}

void Manifest::ParseKnownProcessPaths(const rapidjson::Value& document) {
  ZLOG_DEBUG("Reading KnownProcessPaths");
  constexpr const char* kKey = "knownProcessPaths";
  const rapidjson::Value* paths = FindMember(document, kKey);
  if (paths == nullptr) return;
  if (!paths->IsArray()) throw ManifestException(std::string(kKey) + " is not an array of string.", {kKey});
  for (rapidjson::SizeType i = 0; i < paths->Size(); ++i) {
    if (!(*paths)[i].IsString()) {
      throw ManifestException(std::string(kKey) + " contains non-string value", {kKey, std::to_string(i)});
    }
    known_process_paths_.push_back(common::util::ToString((*paths)[i]));
  }
}

void Manifest::ParseTaggingSettings(const rapidjson::Value& document) {
  ZLOG_DEBUG("Reading tagging settings");
  const rapidjson::Value* tags = FindMember(document, "tags");
  if (tags != nullptr && tags->IsObject()) {
    tagging_settings_.CopyFrom(*tags, tagging_settings_.GetAllocator());
  } else {
    ZLOG_INFO("Tagging is disabled.");
  }
}

void Manifest::ParseRules(const rapidjson::Value& document, const TtlProcessTree& tree) {
  const rapidjson::Value& rules = Mandatory(document, "rules");
  if (!rules.IsArray()) throw ManifestException("Parsing failed. 'rules' section is not an array.", {"rules"});
  for (rapidjson::SizeType i = 0; i < rules.Size(); ++i) {
    ZLOG_DEBUG("Parsing Rule: " << i + 1);
    try {
      ParseRule(rules[i], tree);
    } catch (const ManifestException& error) {
      throw ManifestException(error.what(), Within({"rules", std::to_string(i)}, error.Place()), error.Detail());
    }
  }
}

void Manifest::ParseRule(const rapidjson::Value& rule, const TtlProcessTree& tree) {
  const rapidjson::Value* type = FindMember(rule, "ruleType");
  if (type == nullptr || !type->IsString()) {
    throw ManifestException("Parsing failed. 'rule' section does not contain ruleType as string",
                            type == nullptr ? JsonPlace{} : JsonPlace{"ruleType"});
  }
  const std::string word = common::util::ToString(*type);
  const std::int64_t max_file_size = std::int64_t{max_file_size_to_process_} << kBitsOfMiB;
  try {
    if (word == "File" || word == "Directory") {
      rules_.push_back(std::make_shared<const FileRule>(rule, max_file_size, tree));
    } else if (word == "Process") {
      rules_.push_back(std::make_shared<const ProcessRule>(rule, max_file_size, tree));
    } else if (word == "Network") {
      rules_.push_back(std::make_shared<const NetworkRule>(rule, max_file_size, tree));
    } else if (word == "EDR") {
      whitelist_rules_.push_back(std::make_shared<const WhitelistGlobalRule>(rule, tree));
    } else {
      ZLOG_DEBUG(word << " ruleType is not supported in edr");
    }
  } catch (const RuleFault& fault) {
    RefuseRule(fault.what(), rule, fault.Place());
  } catch (const edr::EventException& error) {
    RefuseRule(error.what(), rule, {"ruleClass"});
  }
}

}  // namespace zagent::ioc::internal
