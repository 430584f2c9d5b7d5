#pragma once

#include <openssl/x509.h>

#include <map>
#include <memory>
#include <string>

#include "common/src/http/HttpInterceptor.h"

namespace zagent::common {

// Accepts a response only when its body is signed by one of the known certificates that its header names:
//
//   security: {"signature": "<base64>", "digest": "sha256", "certificates": ["platform", "platform-next"]}
//
// `digest` is "sha256", "sha1" or "sha512". A certificate "name" is the file "name.pem" of the certificates' folder.
class SigValidationHttpInterceptor final : public HttpInterceptor {
 public:
  // Reads every "*.pem" of the folder now. Throws "Failed to initialize SigValidationHttpInterceptor: <reason>" for a
  // folder that cannot be read or holds none, and for a file that is no certificate.
  explicit SigValidationHttpInterceptor(const std::string& certificate_folder);

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Throws "Failed to validate signature for response" unless one certificate validates it.
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  struct CertificateDeleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
  };
  using Certificate = std::unique_ptr<X509, CertificateDeleter>;
  using Certificates = std::map<std::string, Certificate>;

  static Certificate ReadCertificate(const std::string& file);
  static Certificates ReadFolder(const std::string& folder);
  [[nodiscard]] bool IsValid(const std::string& certificate, const std::string& digest, const std::string& signature,
                             const std::vector<unsigned char>& payload) const;

  std::shared_ptr<const Certificates> certificates_;
};

}  // namespace zagent::common
