#include "common/src/http/HmacConfig.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Concealment.h"
#include "common/src/util/Hmac.h"
#include "common/src/util/Json.h"

namespace zagent::common {
namespace {

struct VersionName {
  HmacVersion version;
  const char* name;
  const char* short_name;
};

constexpr std::array<VersionName, 3> kVersionNames = {{
    {HmacVersion::HmacV1, "HmacV1", "V1"},
    {HmacVersion::HmacV2, "HmacV2", "V2"},
    {HmacVersion::HmacV3, "HmacV3", "V3"},
}};

constexpr unsigned char kConstantByte = 0x3c;

struct KeyOfVersion {
  const char* secret_name;
  const char* id_name;
  const char* concealed_constant;
};

constexpr std::array<KeyOfVersion, 2> kKeys = {{
    {"HmacV1", "KIdV1", "XwUMBQ8PWQoFXQ9ZBVgLDl4OCw1dC18FBAwFXgoICAsKCVheWF1aDgQPCgVaXQtZ"},
    {"HmacV2", "KIdV2", "DQ5aCwoOCQ1aCQ9eXQsKCwgKWQxfCg0NDgsLCwwNCF9fWQxZC18ECwpZWl0ECl9f"},
}};

// Every name under which a signer looks for a key.
constexpr std::array<const char*, 14> kKeyNames = {
    "KIdV1",   "KIdV2", "HmacV1",    "HmacV2",         "HmacV3",        "XauthSM",        "XauthRS",
    "XauthLC", "KAVC",  "KFORENSIC", "PlatformPubKey", "PlatformKeyID", "AgentRsaPvtKey", "AgentRsaPubKey"};

[[noreturn]] void RefuseShape() {
  throw std::invalid_argument("HmacConfig data malformed");
}

HmacVersion VersionOf(const rapidjson::Value& document) {
  const rapidjson::Value* version = util::FindMember(document, "hmacVersion");
  if (version == nullptr) RefuseShape();
  if (version->IsString()) return ParseHmacVersion(util::ToString(*version));
  if (version->IsInt64()) return ParseHmacVersion(version->GetInt64());
  RefuseShape();
}

bool FedrampOf(const rapidjson::Value& document) {
  const rapidjson::Value* fedramp = util::FindMember(document, "fedramp");
  if (fedramp == nullptr) return false;
  if (!fedramp->IsBool()) RefuseShape();
  return fedramp->GetBool();
}

std::unique_ptr<util::KeyStore> KeysOf(const rapidjson::Value& document) {
  const rapidjson::Value* keys = util::FindMember(document, "keys");
  if (keys == nullptr || !keys->IsObject()) RefuseShape();
  auto store = std::make_unique<util::KeyStore>();
  for (const auto& member : keys->GetObject()) {
    const std::string name = util::ToString(member.name);
    if (std::find(kKeyNames.begin(), kKeyNames.end(), name) == kKeyNames.end() || !member.value.IsString()) {
      RefuseShape();
    }
    std::string value = util::ToString(member.value);
    const util::ScopedCleanse cleanse(value);
    store->Add(name, value);
  }
  return store;
}

}  // namespace

HmacVersion ParseHmacVersion(const std::string& text) {
  for (const VersionName& entry : kVersionNames) {
    if (text == entry.name || text == entry.short_name) return entry.version;
  }
  throw std::invalid_argument("Invalid HmacVersion: " + text);
}

HmacVersion ParseHmacVersion(std::int64_t value) {
  for (const VersionName& entry : kVersionNames) {
    if (value == static_cast<std::int64_t>(entry.version)) return entry.version;
  }
  throw std::invalid_argument("Invalid HmacVersion value: " + std::to_string(value));
}

std::string ToString(HmacVersion version) {
  for (const VersionName& entry : kVersionNames) {
    if (version == entry.version) return entry.name;
  }
  throw std::invalid_argument("Invalid HmacVersion value: " + std::to_string(static_cast<int>(version)));
}

std::unique_ptr<util::KeyStore> DeriveKeys(const std::string& customer_id, const std::string& agent_id,
                                           const std::string& activation_id) {
  if (customer_id.empty() || agent_id.empty() || activation_id.empty()) {
    throw std::invalid_argument("Invalid customer id, agent id or activation id");
  }
  auto keys = std::make_unique<util::KeyStore>();
  for (const KeyOfVersion& key : kKeys) {
    std::string constant = util::Reveal(key.concealed_constant, kConstantByte);
    const util::ScopedCleanse cleanse_constant(constant);
    std::string message = key.secret_name;
    const util::ScopedCleanse cleanse_message(message);
    for (const std::string* id : {&customer_id, &agent_id, &activation_id}) message.append(";").append(*id);
    std::string secret = util::HmacSha256Hex(constant, message);
    const util::ScopedCleanse cleanse_secret(secret);
    keys->Add(key.secret_name, secret);
    keys->Add(key.id_name, agent_id);
  }
  return keys;
}

HmacConfig HmacConfig::FromJson(const std::string& json) {
  // Parsed in place: the secrets stay in this one buffer.
  std::string buffer = json;
  const util::ScopedCleanse cleanse(buffer);
  rapidjson::Document document;
  document.ParseInsitu<util::kJsonParseFlags>(buffer.data());
  if (document.HasParseError() || json.find('\0') != std::string::npos) {
    throw std::invalid_argument("Invalid HmacConfig json");
  }
  if (!document.IsObject()) RefuseShape();
  const HmacVersion version = VersionOf(document);
  const bool fedramp = FedrampOf(document);
  return {KeysOf(document), fedramp, version};
}

HmacConfig::HmacConfig(const std::string& customer_id, const std::string& agent_id, const std::string& activation_id,
                       bool fedramp, HmacVersion version)
    : HmacConfig(DeriveKeys(customer_id, agent_id, activation_id), fedramp, version) {}

HmacConfig::HmacConfig(std::unique_ptr<util::KeyStore> keys, bool fedramp, HmacVersion version)
    : keys_(std::move(keys)), fedramp_(fedramp), version_(version) {}

}  // namespace zagent::common
