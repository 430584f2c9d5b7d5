#pragma once

#include <memory>
#include <string>

#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/interceptors/AuthTag.h"
#include "common/src/http/interceptors/HmacV3.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// Signs every request with the headers X-OSTL-Authorization and X-OSTL-Timestamp (docs/PROTOCOL.md, "Signature"), under
// version 2 the requests of some modules with x-auth and Date instead. Under version 3 it also checks answers. Stands
// last in the chain: what it signs is what goes out.
class AuthHttpInterceptor final : public HttpInterceptor {
 public:
  // Throws HttpInterceptorException for HMAC version 3 in a fedramp configuration, for a request tag other than 1, 2
  // and 4, and for a response tag other than 0 and 1. The tags and the action matter under version 3 only.
  AuthHttpInterceptor(std::shared_ptr<const HmacConfig> config, AuthTag request_tag, AuthTag response_tag,
                      const util::Clock& clock = util::Clock::Real(),
                      HmacRequestAction action = HmacRequestAction::None);

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // Brings the URL into the form in which it is sent (UrlAsSent), so that both sides sign the same text.
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // With a response tag other than 0, throws "Failed to process HMAC V3 response, error code: <HmacV3Error>", and
  // "Response context not initialized" under versions 1 and 2, which cannot check a response.
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;

 private:
  struct Request;

  void SignV1(Request& request) const;
  void SignV2(Request& request) const;
  void SignXAuth(Request& request, int module) const;
  void SignV3(Request& request);
  void SetHeaders(Request& request, const char* scheme, const std::string& key_id, const char* key_name,
                  const std::string& message) const;
  [[nodiscard]] std::string FetchKey(const char* name) const;

  std::shared_ptr<const HmacConfig> config_;
  AuthTag request_tag_;
  AuthTag response_tag_;
  const util::Clock& clock_;
  HmacRequestAction action_;
  // Of version 3.
  std::unique_ptr<HmacV3RequestContext> request_context_;
  std::unique_ptr<HmacV3ResponseContext> response_context_;
};

}  // namespace zagent::common
