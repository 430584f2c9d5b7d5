#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace zagent::tools {

struct X509Deleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

// A key and a self-signed certificate. Without a folder they are made anew and never
// written but for the public part: who trusts that file trusts this receiver and nobody else.
class ServerCertificate {
 public:
  struct Traits {
    std::string names = "IP:127.0.0.1,DNS:localhost";
    int days = 365;  // that it is good for; negative: expired so long ago
  };

  // With a folder, which is made with mode 0700 when it does not exist, they are kept there as "cert.pem" and, of mode
  // 0600, "key.pem": a receiver that is started again is the same. Throws std::runtime_error when OpenSSL refuses or
  // the files cannot be read or written.
  ServerCertificate(const std::string& folder, const Traits& traits);

  [[nodiscard]] X509* Certificate() const { return certificate_.get(); }
  [[nodiscard]] EVP_PKEY* Key() const { return key_.get(); }

  // Writes the certificate in PEM form. Throws std::runtime_error when the file cannot be written.
  void WriteTo(const std::string& file) const;

 private:
  void Make(const Traits& traits);
  // False when the folder has none yet.
  bool Load(const std::string& folder);
  void Keep(const std::string& folder) const;

  std::unique_ptr<EVP_PKEY, KeyDeleter> key_;
  std::unique_ptr<X509, X509Deleter> certificate_;
};

}  // namespace zagent::tools
