#pragma once

#include "common/src/http/HttpInterceptor.h"

namespace zagent::common {

// Compresses what goes out and marks it with "Content-Encoding: LZMA"; decompresses a response that is marked so.
// An empty payload is neither compressed nor marked.
class LzmaHttpInterceptor final : public HttpInterceptor {
 public:
  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // Throws "LzmaHttpInterceptor failed to compress request payload: <reason>".
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Throws "LzmaHttpInterceptor failed to decompress response payload: <reason>".
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;
};

}  // namespace zagent::common
