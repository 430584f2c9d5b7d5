#include "tools/reference-receiver/SignatureVerifier.h"

#include <openssl/crypto.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "common/src/http/HmacConfig.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Cleanse.h"
#include "common/src/util/Hmac.h"

namespace zagent::tools {
namespace {

using common::util::Base64Encode;
using common::util::HmacSha256;

constexpr std::chrono::minutes kTimestampWindow(15);
constexpr const char* kSchemeV1 = "ZHmacV1Auth";
constexpr const char* kSchemeV2 = "ZHmacV2Auth";

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

struct SignatureVerifier::Authorization {
  std::string scheme;
  std::string key_id;
  std::string signature;

  // "<scheme> <key id>:<signature>". The signature is base64 and holds no colon.
  static std::optional<Authorization> Parse(const std::string& text) {
    const std::size_t blank = text.find(' ');
    const std::size_t colon = text.rfind(':');
    if (blank == std::string::npos || colon == std::string::npos || colon < blank) return std::nullopt;
    return Authorization{text.substr(0, blank), text.substr(blank + 1, colon - blank - 1), text.substr(colon + 1)};
  }
};

struct SignatureVerifier::Head {
  std::string fault;
  Authorization authorization;
  std::optional<AgentKeys::Agent> agent;
};

SignatureVerifier::SignatureVerifier(const AgentKeys& agents, const common::util::Clock& clock,
                                     const std::string& v3_file)
    : agents_(agents), clock_(clock) {
  if (v3_file.empty()) return;
  if (!agents_.Single()) throw std::invalid_argument("Version 3 of the signature is for a single agent");
  v3_ = std::make_unique<const HmacV3Verifier>(HmacV3Keys::ReadFile(v3_file));
}

bool SignatureVerifier::IsV3(const SignedRequest& request) const {
  return v3_ && request.authorization && request.authorization->starts_with("ZAuthV3 ");
}

SignatureVerifier::Head SignatureVerifier::Read(const SignedRequest& request) const {
  const auto fault = [](const char* text) { return Head{text, {}, std::nullopt}; };
  if (!request.authorization) return fault("missing header X-OSTL-Authorization");
  if (!request.timestamp) return fault("missing header X-OSTL-Timestamp");
  const auto time = ParseTimestamp(*request.timestamp);
  if (!time) return fault("malformed timestamp");
  const auto now = std::chrono::floor<std::chrono::seconds>(clock_.Now());
  if (std::chrono::abs(now - *time) > kTimestampWindow) return fault("timestamp outside the allowed window");
  if (IsV3(request)) return {"", {}, AgentKeys::Agent{*agents_.Single(), ""}};

  const std::optional<Authorization> authorization = Authorization::Parse(*request.authorization);
  if (!authorization) return fault("malformed authorization");
  if (authorization->scheme != kSchemeV1 && authorization->scheme != kSchemeV2) {
    return fault("unknown authorization scheme");
  }
  auto agent = agents_.Find(authorization->key_id);
  if (!agent) return fault("unknown key id");
  return {"", *authorization, std::move(agent)};
}

SignatureVerifier::Claim SignatureVerifier::ReadHead(const SignedRequest& request) const {
  Head head = Read(request);
  if (!head.agent) return {std::move(head.fault), {}};
  common::util::Cleanse(head.agent->activation_id);
  return {"", std::move(head.agent->identity)};
}

std::optional<std::string> SignatureVerifier::FindFault(const SignedRequest& request) const {
  Head head = Read(request);
  if (!head.agent) return head.fault;
  if (IsV3(request)) return v3_->FindFault(request);
  AgentKeys::Agent& agent = *head.agent;
  const common::util::ScopedCleanse cleanse_activation(agent.activation_id);
  const auto keys = common::DeriveKeys(agent.identity.customer_id, agent.identity.agent_id, agent.activation_id);
  const bool is_v1 = head.authorization.scheme == kSchemeV1;
  std::string key = keys->Get(is_v1 ? "HmacV1" : "HmacV2");
  const common::util::ScopedCleanse cleanse(key);
  const std::string message = is_v1 ? MessageV1(request) : MessageV2(request, head.authorization.key_id);
  if (!IsEqual(Base64Encode(HmacSha256(key, message)), head.authorization.signature)) {
    return "signature does not match";
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> SignatureVerifier::SignAnswer(const SignedRequest& request,
                                                                               const std::string& body) const {
  if (!IsV3(request)) return {};
  return v3_->SignAnswer(request, body, common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now())));
}

}  // namespace zagent::tools
