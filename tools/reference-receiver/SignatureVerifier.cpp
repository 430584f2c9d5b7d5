#include "tools/reference-receiver/SignatureVerifier.h"

#include <openssl/crypto.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

#include "common/src/http/HmacConfig.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Cleanse.h"
#include "common/src/util/Hmac.h"

namespace zagent::tools {
namespace {

using common::util::Base64Encode;
using common::util::HmacSha256;

constexpr std::chrono::minutes kTimestampWindow(15);

struct Authorization {
  std::string scheme;
  std::string key_id;
  std::string signature;
};

// "<scheme> <key id>:<signature>". The signature is base64 and holds no colon.
std::optional<Authorization> Parse(const std::string& text) {
  const std::size_t blank = text.find(' ');
  const std::size_t colon = text.rfind(':');
  if (blank == std::string::npos || colon == std::string::npos || colon < blank) return std::nullopt;
  return Authorization{text.substr(0, blank), text.substr(blank + 1, colon - blank - 1), text.substr(colon + 1)};
}

// In whole seconds: the nanoseconds of a far year would not fit and could come around to now.
std::optional<std::chrono::sys_seconds> ParseTimestamp(const std::string& text) {
  std::tm parts{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (text.size() != 20 || end == nullptr || *end != '\0') return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(timegm(&parts)));
}

std::string MessageV1(const SignedRequest& request) {
  std::string message = request.method + ";";
  if (request.method == "POST" || request.method == "PUT") {
    message += request.body + ";" + request.content_type.value_or("null") + ";";
  }
  return message + *request.timestamp + ";" + request.target;
}

std::string MessageV2(const SignedRequest& request, const std::string& key_id) {
  return request.method + ";" + *request.timestamp + ";" + key_id + ";" + request.target;
}

bool IsEqual(const std::string& left, const std::string& right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace

SignatureVerifier::SignatureVerifier(const std::string& customer_id, const std::string& agent_id,
                                     const std::string& activation_id, const common::util::Clock& clock,
                                     const std::string& v3_file)
    : keys_(common::DeriveKeys(customer_id, agent_id, activation_id)), clock_(clock) {
  if (!v3_file.empty()) v3_ = std::make_unique<const HmacV3Verifier>(HmacV3Keys::ReadFile(v3_file));
}

bool SignatureVerifier::IsV3(const SignedRequest& request) {
  return request.authorization && request.authorization->starts_with("ZAuthV3 ");
}

std::optional<std::string> SignatureVerifier::FindFault(const SignedRequest& request) const {
  if (!request.authorization) return "missing header X-OSTL-Authorization";
  if (!request.timestamp) return "missing header X-OSTL-Timestamp";
  const auto time = ParseTimestamp(*request.timestamp);
  if (!time) return "malformed timestamp";
  const auto now = std::chrono::floor<std::chrono::seconds>(clock_.Now());
  if (std::chrono::abs(now - *time) > kTimestampWindow) return "timestamp outside the allowed window";
  if (v3_ && IsV3(request)) return v3_->FindFault(request);

  const std::optional<Authorization> authorization = Parse(*request.authorization);
  if (!authorization) return "malformed authorization";
  const bool is_v1 = authorization->scheme == "ZHmacV1Auth";
  if (!is_v1 && authorization->scheme != "ZHmacV2Auth") return "unknown authorization scheme";
  const std::string key_id = keys_->Get(is_v1 ? "KIdV1" : "KIdV2");
  if (authorization->key_id != key_id) return "unknown key id";

  std::string key = keys_->Get(is_v1 ? "HmacV1" : "HmacV2");
  const common::util::ScopedCleanse cleanse(key);
  const std::string message = is_v1 ? MessageV1(request) : MessageV2(request, key_id);
  if (!IsEqual(Base64Encode(HmacSha256(key, message)), authorization->signature)) return "signature does not match";
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> SignatureVerifier::SignAnswer(const SignedRequest& request,
                                                                               const std::string& body) const {
  if (!v3_ || !IsV3(request)) return {};
  return v3_->SignAnswer(request, body, common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now())));
}

}  // namespace zagent::tools
