#pragma once

#include <string>

#include "common/src/http/HttpInterceptor.h"

namespace zagent::common {

// A diagnostic aid: writes what passes through this place of the chain to files, each time over what was there. Files
// are made with mode 0600. What cannot be written is logged and holds nothing up.
class PayloadDumperHttpInterceptor final : public HttpInterceptor {
 public:
  // Throws "PayloadLogger: request, chunk-response and final-reponse file paths cannot be empty".
  PayloadDumperHttpInterceptor(std::string request_file, std::string chunk_response_file,
                               std::string final_response_file);

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Only says that nothing is written here.
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  std::string request_file_;
  std::string chunk_response_file_;
  std::string final_response_file_;
  std::string url_;  // of the attempt in flight
};

}  // namespace zagent::common
