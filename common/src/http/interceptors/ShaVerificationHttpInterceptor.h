#pragma once

#include <string>

#include "common/src/http/HttpInterceptor.h"

namespace zagent::common {

// Fails a response whose body does not have the expected SHA-256.
class ShaVerificationHttpInterceptor final : public HttpInterceptor {
 public:
  // `expected_hash`: 64 hexadecimal digits in lower case.
  explicit ShaVerificationHttpInterceptor(std::string expected_hash) : expected_hash_(std::move(expected_hash)) {}

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Throws "Hash mismatch.", "Hash calculation error." and, when the body cannot be had,
  // "Invalid access exception: <reason>".
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  std::string expected_hash_;
};

}  // namespace zagent::common
