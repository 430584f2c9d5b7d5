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

// A key and a self-signed certificate for 127.0.0.1 and localhost, made anew and never written but for the public
// part: who trusts that file trusts this receiver and nobody else.
class ServerCertificate {
 public:
  // Throws std::runtime_error when OpenSSL refuses.
  ServerCertificate();

  [[nodiscard]] X509* Certificate() const { return certificate_.get(); }
  [[nodiscard]] EVP_PKEY* Key() const { return key_.get(); }

  // Writes the certificate in PEM form. Throws std::runtime_error when the file cannot be written.
  void WriteTo(const std::string& file) const;

 private:
  std::unique_ptr<EVP_PKEY, KeyDeleter> key_;
  std::unique_ptr<X509, X509Deleter> certificate_;
};

}  // namespace zagent::tools
