#pragma once

#include <memory>
#include <optional>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/interceptors/LzmaCompression.h"

namespace zagent::common {

// Compresses what goes out and marks it with "Content-Encoding: LZMA"; decompresses a response that is marked so.
// An empty payload is neither compressed nor marked.
class LzmaHttpInterceptor final : public HttpInterceptor {
 public:
  // `compression`: how, for requests and responses; of the format LZMA, and safe to be used by several threads.
  explicit LzmaHttpInterceptor(
      std::shared_ptr<const Compression> compression = std::make_shared<const LzmaCompression>())
      : compression_(std::move(compression)) {}

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // Compresses once for all attempts, which only put the result in place; keeps a failure for them.
  void PrepareRequest(const std::vector<unsigned char>& payload) override;
  // Throws "LzmaHttpInterceptor failed to compress request payload: <reason>".
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Throws "LzmaHttpInterceptor failed to decompress response payload: <reason>".
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  struct Prepared {
    std::vector<unsigned char> body;
    std::string failure;  // empty when the body is good
  };
  [[nodiscard]] Prepared Compress(const std::vector<unsigned char>& payload) const;

  std::shared_ptr<const Compression> compression_;
  std::optional<Prepared> prepared_;
};

}  // namespace zagent::common
