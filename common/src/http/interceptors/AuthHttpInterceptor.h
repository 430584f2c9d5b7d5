#pragma once

#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/interceptors/AuthTag.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// Signs every request with the headers X-OSTL-Authorization and X-OSTL-Timestamp (docs/PROTOCOL.md, "Signature").
// Stands last in the chain: what it signs is what goes out.
class AuthHttpInterceptor final : public HttpInterceptor {
 public:
  // Throws HttpInterceptorException for HMAC version 3, for a request tag other than 1, 2 and 4, and for a response
  // tag other than 0 and 1.
  AuthHttpInterceptor(std::shared_ptr<const HmacConfig> config, AuthTag request_tag, AuthTag response_tag,
                      const util::Clock& clock = util::Clock::Real());

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // Brings the URL into the form in which it is sent (dot segments resolved, "/" for an empty path, no fragment), so
  // that both sides sign the same text.
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Throws "Response context not initialized" for a response tag other than 0.
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  struct Request;

  void SignV1(Request& request) const;
  void SignV2(Request& request) const;
  void SetHeaders(Request& request, const char* scheme, const std::string& key_id, const char* key_name,
                  const std::string& message) const;
  [[nodiscard]] std::string FetchKey(const char* name) const;

  std::shared_ptr<const HmacConfig> config_;
  AuthTag request_tag_;
  AuthTag response_tag_;
  const util::Clock& clock_;
};

}  // namespace zagent::common
