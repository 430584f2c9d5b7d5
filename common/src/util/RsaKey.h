#pragma once

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zagent::common::util {

class RsaException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An RSA key of 2,048 bits at least, for OAEP with SHA-256 (also as the mask's digest). Thread-safe.
class RsaKey {
 public:
  // From PEM: "PUBLIC KEY" or the PKCS#1 form "RSA PUBLIC KEY". Throws RsaException, also for a smaller key.
  static RsaKey FromPublicPem(const std::string& pem);
  // From PEM: "PRIVATE KEY" or the PKCS#1 form "RSA PRIVATE KEY", not encrypted. Throws RsaException.
  static RsaKey FromPrivatePem(const std::string& pem);

  // What only the holder of the private key opens. Throws RsaException for more bytes than the key takes.
  [[nodiscard]] std::string Seal(std::string_view bytes) const;
  // Needs the private key. The caller cleanses the result. Throws RsaException for what is not sealed with this key,
  // and says no more than that.
  [[nodiscard]] std::string Open(std::string_view sealed) const;
  // SHA-256 over the public half in DER (SubjectPublicKeyInfo), 64 lower-case hexadecimal digits.
  [[nodiscard]] std::string Fingerprint() const;

 private:
  struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };
  using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;

  explicit RsaKey(Key key) : key_(std::move(key)) {}
  static RsaKey Decode(const std::string& pem, int selection);

  Key key_;
};

}  // namespace zagent::common::util
