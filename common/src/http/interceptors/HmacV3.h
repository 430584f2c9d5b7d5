#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/src/http/HmacRequestAction.h"
#include "common/src/http/HttpHeaders.h"
#include "common/src/http/interceptors/AuthTag.h"
#include "common/src/util/KeyStore.h"

namespace zagent::common {

// Version 3 of the signature (docs/PROTOCOL.md, "Version 3"): the payload is always signed, a request may carry a fresh
// key that is sealed for the platform, and the platform may be asked to sign its answer to this very request.

enum class HmacV3Error {
  BadKey = 1,         // a PEM text of the KeyStore holds no usable RSA key
  BadIdentifier = 2,  // the platform's key id has a character that separates parts
  SealingFailed = 3,
  NoRandomBytes = 4,
  DigestFailed = 5,
  NoAuthorization = 6,  // the answer has none
  MalformedAuthorization = 7,
  UnknownPlatformKey = 8,  // the answer is of another key than the request was for
  OpeningFailed = 9,       // the answer's key was not sealed for this agent
  SignatureMismatch = 10,
};

class HmacV3Exception : public std::runtime_error {
 public:
  explicit HmacV3Exception(HmacV3Error code);
  [[nodiscard]] HmacV3Error GetCode() const { return code_; }

 private:
  HmacV3Error code_;
};

// Answers the value of a key by its name; the one who asks cleanses it. Throws util::KeyStoreException.
using HmacKeySource = std::function<std::string(const char* name)>;

// Builds what a request carries, and keeps what its answer is checked with. One request at a time.
class HmacV3RequestContext {
 public:
  // The tag of the request is 1 (a fresh key alone signs: the agent has no secret yet), 2 (the secret and a fresh key)
  // or 4 (the secret). `response_tag`: what the answer must carry.
  HmacV3RequestContext(AuthTag tag, AuthTag response_tag, HmacRequestAction action);

  struct Request {
    const std::string& method;
    const std::string& target;  // path and query as sent
    std::string_view payload;   // as sent
    const std::string& timestamp;
  };
  // The two header lines, "Name: value". Throws HmacV3Exception, util::KeyStoreException, util::HmacDigestException and
  // HttpInterceptorException "Unsupported HTTP method: <text>" and "Unsupported AuthTag: <number>".
  std::vector<std::string> Prepare(const Request& request, const HmacKeySource& keys);

  // Of the last request.
  [[nodiscard]] const std::string& GetNonce() const { return nonce_; }
  // The caller cleanses it.
  [[nodiscard]] std::string GetSigningKey() const { return exchange_.Get("key"); }

 private:
  const AuthTag tag_;
  const AuthTag response_tag_;
  const HmacRequestAction action_;
  std::string nonce_;
  util::KeyStore exchange_;  // conceals the key of the exchange
};

// Checks that an answer was signed by whom the request was for, and for this request.
class HmacV3ResponseContext {
 public:
  explicit HmacV3ResponseContext(AuthTag tag) : tag_(tag) {}

  // Throws HmacV3Exception and util::KeyStoreException.
  void Check(const HttpHeaders& headers, std::string_view payload, const HmacV3RequestContext& request,
             const HmacKeySource& keys) const;

 private:
  const AuthTag tag_;
};

}  // namespace zagent::common
