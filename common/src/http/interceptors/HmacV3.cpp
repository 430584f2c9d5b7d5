#include "common/src/http/interceptors/HmacV3.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>

#include "common/src/http/HttpException.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Cleanse.h"
#include "common/src/util/Digest.h"
#include "common/src/util/Hmac.h"
#include "common/src/util/RsaKey.h"

namespace zagent::common {
namespace {

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 16;
constexpr const char* kNothing = "-";
constexpr std::array<const char*, 3> kMethods = {"GET", "POST", "PUT"};

std::string RandomBytes(std::size_t size) {
  std::string bytes(size, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(size)) != 1) {
    throw HmacV3Exception(HmacV3Error::NoRandomBytes);
  }
  return bytes;
}

std::string DigestOf(std::string_view payload) {
  try {
    return util::Sha256Hex(payload);
  } catch (const util::DigestException&) {
    throw HmacV3Exception(HmacV3Error::DigestFailed);
  }
}

util::RsaKey PublicKey(const HmacKeySource& keys, const char* name) {
  try {
    return util::RsaKey::FromPublicPem(keys(name));
  } catch (const util::RsaException&) {
    throw HmacV3Exception(HmacV3Error::BadKey);
  }
}

std::string FingerprintOf(const util::RsaKey& key) {
  try {
    return key.Fingerprint();
  } catch (const std::exception&) {
    throw HmacV3Exception(HmacV3Error::BadKey);
  }
}

// '#' separates parts of a value, ';' those of a message.
std::string PlatformKeyId(const HmacKeySource& keys) {
  std::string id = keys("PlatformKeyID");
  const bool clean = !id.empty() && id.find_first_of("#;") == std::string::npos && id == PrintableText(id, id.size());
  if (!clean || id.find(' ') != std::string::npos) throw HmacV3Exception(HmacV3Error::BadIdentifier);
  return id;
}

std::string SealFor(const util::RsaKey& key, std::string_view bytes) {
  try {
    return util::Base64Encode(key.Seal(bytes));
  } catch (const util::RsaException&) {
    throw HmacV3Exception(HmacV3Error::SealingFailed);
  }
}

std::size_t MethodNumber(const std::string& method) {
  for (std::size_t number = 0; number < kMethods.size(); ++number) {
    if (method == kMethods[number]) return number;
  }
  throw HttpInterceptorException("Unsupported HTTP method: " + method);
}

std::string Join(const std::vector<std::string>& parts, char separator) {
  std::string text;
  for (const std::string& part : parts) {
    if (&part != &parts.front()) text += separator;
    text += part;
  }
  return text;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
  }
  return parts;
}

// A fresh key and what of it goes over the wire; nothing of both for tag 4.
struct FreshKey {
  std::string key;
  std::string sealed = kNothing;
};

FreshKey MakeFreshKey(AuthTag tag, const HmacKeySource& keys) {
  if (tag == AuthTag::Tag4) return {};
  FreshKey fresh;
  fresh.key = RandomBytes(kKeySize);
  fresh.sealed = SealFor(PublicKey(keys, "PlatformPubKey"), fresh.key);
  return fresh;
}

std::string SigningKey(AuthTag tag, const std::string& fresh, const HmacKeySource& keys) {
  if (tag == AuthTag::Tag1) return fresh;
  std::string secret = keys("HmacV3");
  if (tag == AuthTag::Tag4) return secret;
  const util::ScopedCleanse cleanse(secret);
  return util::HmacSha256(secret, fresh);
}

}  // namespace

HmacV3Exception::HmacV3Exception(HmacV3Error code)
    : std::runtime_error("error code " + std::to_string(static_cast<int>(code))), code_(code) {}

HmacV3RequestContext::HmacV3RequestContext(AuthTag tag, AuthTag response_tag, HmacRequestAction action)
    : tag_(tag), response_tag_(response_tag), action_(action) {}

std::vector<std::string> HmacV3RequestContext::Prepare(const Request& request, const HmacKeySource& keys) {
  const std::size_t method = MethodNumber(request.method);
  if (tag_ != AuthTag::Tag1 && tag_ != AuthTag::Tag2 && tag_ != AuthTag::Tag4) {
    throw HttpInterceptorException("Unsupported AuthTag: " + std::to_string(static_cast<std::uint32_t>(tag_)));
  }
  nonce_ = util::Base64Encode(RandomBytes(kNonceSize));
  FreshKey fresh = MakeFreshKey(tag_, keys);
  const util::ScopedCleanse cleanse_fresh(fresh.key);
  std::string key = SigningKey(tag_, fresh.key, keys);
  const util::ScopedCleanse cleanse_key(key);

  const auto number = [](AuthTag tag) { return std::to_string(static_cast<std::uint32_t>(tag)); };
  std::vector<std::string> parts = {number(tag_),        number(response_tag_),
                                    ToString(action_),   FingerprintOf(PublicKey(keys, "AgentRsaPubKey")),
                                    PlatformKeyId(keys), nonce_,
                                    fresh.sealed};
  const std::string message = Join({"HmacV3", "request", Join(parts, ';'), std::to_string(method), request.timestamp,
                                    DigestOf(request.payload), request.target},
                                   ';');
  parts.push_back(util::Base64Encode(util::HmacSha256(key, message)));
  exchange_.Add("key", key);
  return {"X-OSTL-Authorization: ZAuthV3 " + Join(parts, '#'), "X-OSTL-Timestamp: " + request.timestamp};
}

void HmacV3ResponseContext::Check(const HttpHeaders& headers, std::string_view payload,
                                  const HmacV3RequestContext& request, const HmacKeySource& keys) const {
  constexpr std::string_view kScheme = "ZAuthV3 ";
  const auto authorization = headers.find("X-OSTL-Authorization");
  const auto timestamp = headers.find("X-OSTL-Timestamp");
  if (authorization == headers.end() || timestamp == headers.end()) {
    throw HmacV3Exception(HmacV3Error::NoAuthorization);
  }
  const std::string tag = std::to_string(static_cast<std::uint32_t>(tag_));
  const std::string& value = authorization->second;
  if (!value.starts_with(kScheme)) throw HmacV3Exception(HmacV3Error::MalformedAuthorization);
  const std::vector<std::string> parts = Split(value.substr(kScheme.size()), '#');
  if (parts.size() != 4 || parts[0] != tag) throw HmacV3Exception(HmacV3Error::MalformedAuthorization);
  if (parts[1] != PlatformKeyId(keys)) throw HmacV3Exception(HmacV3Error::UnknownPlatformKey);

  std::string fresh;
  const util::ScopedCleanse cleanse_fresh(fresh);
  try {
    std::string pem = keys("AgentRsaPvtKey");
    const util::ScopedCleanse cleanse_pem(pem);
    fresh = util::RsaKey::FromPrivatePem(pem).Open(util::Base64Decode(parts[2]));
  } catch (const util::RsaException&) {
    throw HmacV3Exception(HmacV3Error::OpeningFailed);
  } catch (const util::Base64Exception&) {
    throw HmacV3Exception(HmacV3Error::MalformedAuthorization);
  }
  std::string request_key = request.GetSigningKey();
  const util::ScopedCleanse cleanse_request_key(request_key);
  std::string key = util::HmacSha256(request_key, fresh);
  const util::ScopedCleanse cleanse_key(key);
  const std::string message = Join(
      {"HmacV3", "response", parts[0], parts[1], timestamp->second, request.GetNonce(), parts[2], DigestOf(payload)},
      ';');
  const std::string expected = util::Base64Encode(util::HmacSha256(key, message));
  if (expected.size() != parts[3].size() || CRYPTO_memcmp(expected.data(), parts[3].data(), expected.size()) != 0) {
    throw HmacV3Exception(HmacV3Error::SignatureMismatch);
  }
}

}  // namespace zagent::common
