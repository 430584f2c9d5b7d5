#include "tools/reference-receiver/HmacV3Verifier.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "common/src/util/Base64.h"
#include "common/src/util/Digest.h"
#include "common/src/util/Hmac.h"
#include "common/src/util/Json.h"
#include "tools/reference-receiver/SignatureVerifier.h"

namespace zagent::tools {
namespace {

namespace util = common::util;

constexpr const char* kScheme = "ZAuthV3 ";
constexpr std::array<const char*, 3> kMethods = {"GET", "POST", "PUT"};

// The places of the parts in the value of a request.
enum Part { kTag, kAnswerTag, kAction, kAgentKeyId, kPlatformKeyId, kNonce, kSealedKey, kSignature, kParts };

std::vector<std::string> PartsOf(const SignedRequest& request) {
  std::vector<std::string> parts;
  std::istringstream in(request.authorization.value_or("").substr(std::string(kScheme).size()));
  for (std::string part; std::getline(in, part, '#');) parts.push_back(part);
  return parts;
}

std::string MethodNumber(const std::string& method) {
  for (std::size_t i = 0; i < kMethods.size(); ++i) {
    if (method == kMethods[i]) return std::to_string(i);
  }
  return "-";
}

}  // namespace

HmacV3Keys HmacV3Keys::ReadFile(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  rapidjson::Document document;
  util::ParseJson(document, text);
  const auto member = [&](const char* name) {
    const rapidjson::Value* value = document.HasParseError() ? nullptr : util::FindMember(document, name);
    if (value == nullptr || !value->IsString()) throw std::runtime_error(file + ": no " + name);
    return util::ToString(*value);
  };
  return {member("HmacV3"), member("AgentRsaPubKey"), member("PlatformRsaPvtKey"), member("PlatformKeyID")};
}

HmacV3Verifier::HmacV3Verifier(HmacV3Keys keys)
    : keys_(std::move(keys)),
      agent_key_(util::RsaKey::FromPublicPem(keys_.agent_public_key)),
      platform_key_(util::RsaKey::FromPrivatePem(keys_.platform_private_key)),
      agent_key_id_(agent_key_.Fingerprint()) {}

std::string HmacV3Verifier::SigningKey(const std::vector<std::string>& parts) const {
  if (parts[kTag] == "4") return keys_.secret;
  const std::string fresh = platform_key_.Open(util::Base64Decode(parts[kSealedKey]));
  return parts[kTag] == "1" ? fresh : util::HmacSha256(keys_.secret, fresh);
}

std::optional<std::string> HmacV3Verifier::FindFault(const SignedRequest& request) const {
  const std::vector<std::string> parts = PartsOf(request);
  if (parts.size() != kParts) return "malformed authorization";
  if (parts[kTag] != "1" && parts[kTag] != "2" && parts[kTag] != "4") return "unknown auth tag";
  if (parts[kTag] != "1" && keys_.secret.empty()) return "no secret for this tag";
  if (parts[kAgentKeyId] != agent_key_id_) return "unknown key id";
  if (parts[kPlatformKeyId] != keys_.platform_key_id) return "unknown platform key id";
  std::string message = "HmacV3;request";
  for (std::size_t i = 0; i < kSignature; ++i) message += ";" + parts[i];
  message += ";" + MethodNumber(request.method) + ";" + *request.timestamp + ";" + util::Sha256Hex(request.body) + ";" +
             request.target;
  try {
    const std::string expected = util::Base64Encode(util::HmacSha256(SigningKey(parts), message));
    const std::string& given = parts[kSignature];
    if (expected.size() == given.size() && CRYPTO_memcmp(expected.data(), given.data(), given.size()) == 0) {
      return std::nullopt;
    }
  } catch (const util::RsaException&) {
    return "fresh key cannot be opened";
  } catch (const util::Base64Exception&) {
    return "malformed authorization";
  }
  return "signature does not match";
}

std::vector<std::pair<std::string, std::string>> HmacV3Verifier::SignAnswer(const SignedRequest& request,
                                                                            const std::string& body,
                                                                            const std::string& timestamp) const {
  const std::vector<std::string> parts = PartsOf(request);
  if (parts.size() != kParts || parts[kAnswerTag] != "1") return {};
  std::string fresh(32, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(fresh.data()), static_cast<int>(fresh.size())) != 1) {
    throw std::runtime_error("OpenSSL failed to make a key");
  }
  const std::string head = "1#" + keys_.platform_key_id + "#" + util::Base64Encode(agent_key_.Seal(fresh));
  const std::string sealed = head.substr(head.rfind('#') + 1);
  const std::string message = "HmacV3;response;1;" + keys_.platform_key_id + ";" + timestamp + ";" + parts[kNonce] +
                              ";" + sealed + ";" + util::Sha256Hex(body);
  const std::string key = util::HmacSha256(SigningKey(parts), fresh);
  return {{"X-OSTL-Authorization", kScheme + head + "#" + util::Base64Encode(util::HmacSha256(key, message))},
          {"X-OSTL-Timestamp", timestamp}};
}

}  // namespace zagent::tools
