#include "common/src/http/interceptors/AuthHttpInterceptor.h"

#include "common/src/http/MutableHttpResponse.h"
#include "common/src/http/RequestTarget.h"
#include "common/src/http/interceptors/XAuth.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Cleanse.h"
#include "common/src/util/Hmac.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr const char* kAuthorizationHeader = "X-OSTL-Authorization";
constexpr const char* kTimestampHeader = "X-OSTL-Timestamp";

bool IsLegalInRequest(AuthTag tag) {
  return tag == AuthTag::Tag1 || tag == AuthTag::Tag2 || tag == AuthTag::Tag4;
}

bool IsLegalInResponse(AuthTag tag) {
  return tag == AuthTag::None || tag == AuthTag::Tag1;
}

}  // namespace

struct AuthHttpInterceptor::Request {
  const std::string& url;
  const std::vector<unsigned char>& payload;
  HttpHeaders& headers;
  const std::string& method;
  std::string path_etc;
  std::string timestamp;
};

AuthHttpInterceptor::AuthHttpInterceptor(std::shared_ptr<const HmacConfig> config, AuthTag request_tag,
                                         AuthTag response_tag, const util::Clock& clock, HmacRequestAction action)
    : config_(std::move(config)),
      request_tag_(request_tag),
      response_tag_(response_tag),
      clock_(clock),
      action_(action) {
  const bool is_v3 = config_->GetVersion() == HmacVersion::HmacV3;
  if (is_v3 && config_->IsFedramp()) throw HttpInterceptorException("Hmac V3 is not supported for fedramp");
  if (!IsLegalInRequest(request_tag_)) {
    throw HttpInterceptorException("Auth-Tag: " + ToString(request_tag_) + " is not legal in request");
  }
  if (!IsLegalInResponse(response_tag_)) {
    throw HttpInterceptorException("Auth-Tag: " + ToString(response_tag_) + " is not legal in reponse");
  }
  if (!is_v3) return;
  request_context_ = std::make_unique<HmacV3RequestContext>(request_tag_, response_tag_, action_);
  response_context_ = std::make_unique<HmacV3ResponseContext>(response_tag_);
}

std::unique_ptr<HttpInterceptor> AuthHttpInterceptor::Clone() const {
  return std::make_unique<AuthHttpInterceptor>(config_, request_tag_, response_tag_, clock_, action_);
}

void AuthHttpInterceptor::ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                                         const std::string& method) {
  if (method != "GET" && method != "PUT" && method != "POST") {
    throw HttpInterceptorException("Invalid HTTP Method: " + method);
  }
  try {
    url = UrlAsSent(url);
    Request request{
        url, payload, headers, method, RequestTarget(url), util::FormatUtc(util::ToNanoseconds(clock_.Now()))};
    switch (config_->GetVersion()) {
      case HmacVersion::HmacV1:
        return SignV1(request);
      case HmacVersion::HmacV2:
        return SignV2(request);
      case HmacVersion::HmacV3:
        return SignV3(request);
    }
  } catch (const InvalidUrlException& error) {
    throw HttpInterceptorException(std::string("Failed to set auth headers, error: ") + error.what());
  } catch (const util::KeyStoreException& error) {
    throw HttpInterceptorException(std::string("Failed to set auth headers, error: ") + error.what());
  } catch (const util::Base64Exception& error) {
    throw HttpInterceptorException(std::string("Failed to set auth headers, error: ") + error.what());
  } catch (const util::HmacDigestException& error) {
    throw HttpInterceptorException(std::string("Failed to set auth headers, error: ") + error.what());
  }
  throw HttpInterceptorException("Invalid Auth-Version: " + std::to_string(static_cast<int>(config_->GetVersion())));
}

void AuthHttpInterceptor::SignV1(Request& request) const {
  std::string message = request.method + ";";
  if (request.method != "GET") {
    const auto content_type = request.headers.find("Content-Type");
    message.append(reinterpret_cast<const char*>(request.payload.data()), request.payload.size());
    message += ";" + (content_type == request.headers.end() ? "null" : content_type->second) + ";";
  }
  message += request.timestamp + ";" + request.path_etc;
  SetHeaders(request, "ZHmacV1Auth", FetchKey("KIdV1"), "HmacV1", message);
}

void AuthHttpInterceptor::SignV2(Request& request) const {
  if (const std::optional<int> module = FindXAuthModule(request.path_etc)) return SignXAuth(request, *module);
  const std::string key_id = FetchKey("KIdV2");
  const std::string message = request.method + ";" + request.timestamp + ";" + key_id + ";" + request.path_etc;
  SetHeaders(request, "ZHmacV2Auth", key_id, "HmacV2", message);
}

void AuthHttpInterceptor::SignXAuth(Request& request, int module) const {
  std::string key = FetchKey(XAuthKeyName(module));
  const util::ScopedCleanse cleanse(key);
  request.headers["x-auth"] = util::Base64Encode(util::HmacSha256(key, request.path_etc + ";" + request.timestamp));
  request.headers["Date"] = request.timestamp;
  ZLOG_TRACE("AuthHttpInterceptor: updated request with url: " << request.url << " with auth: x-auth");
}

void AuthHttpInterceptor::SignV3(Request& request) {
  const std::string_view payload(reinterpret_cast<const char*>(request.payload.data()), request.payload.size());
  std::vector<std::string> lines;
  try {
    lines = request_context_->Prepare({request.method, request.path_etc, payload, request.timestamp},
                                      [this](const char* name) { return FetchKey(name); });
  } catch (const HmacV3Exception& error) {
    throw HttpInterceptorException("Failed to prepare HMAC V3 request, error code: " +
                                   std::to_string(static_cast<int>(error.GetCode())));
  }
  for (const std::string& line : lines) {
    const std::size_t colon = line.find(": ");
    request.headers[line.substr(0, colon)] = line.substr(colon + 2);
  }
  ZLOG_TRACE("AuthHttpInterceptor: updated request with url: " << request.url
                                                               << " for auth-tag: " << ToString(request_tag_));
}

void AuthHttpInterceptor::SetHeaders(Request& request, const char* scheme, const std::string& key_id,
                                     const char* key_name, const std::string& message) const {
  std::string key = FetchKey(key_name);
  const util::ScopedCleanse cleanse(key);
  const std::string signature = util::Base64Encode(util::HmacSha256(key, message));
  request.headers[kAuthorizationHeader] = std::string(scheme) + " " + key_id + ":" + signature;
  request.headers[kTimestampHeader] = request.timestamp;
  ZLOG_TRACE("AuthHttpInterceptor: updated request with url: " << request.url << " with auth: " << scheme);
}

std::string AuthHttpInterceptor::FetchKey(const char* name) const {
  try {
    return config_->GetKeyStore().Get(name);
  } catch (const util::KeyStoreException&) {
    throw util::KeyStoreException(std::string("Failed to fetch hmac key: ") + name);
  }
}

HttpInterceptor::ChunkResult AuthHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>&,
                                                                       std::vector<unsigned char>&) {
  return ChunkResult::Continue;
}

void AuthHttpInterceptor::ProcessResponse(const std::string& url, MutableHttpResponse& response) {
  if (response_tag_ == AuthTag::None) {
    ZLOG_TRACE("AuthHttpInterceptor: response processing not required for url: " << url);
    return;
  }
  // Versions 1 and 2 cannot check a response: whoever asked for it must not take this one for checked.
  if (!response_context_) throw HttpInterceptorException("Response context not initialized");
  const std::vector<unsigned char>& payload = response.GetPayload();
  try {
    response_context_->Check(response.GetHeaders(), {reinterpret_cast<const char*>(payload.data()), payload.size()},
                             *request_context_, [this](const char* name) { return FetchKey(name); });
  } catch (const HmacV3Exception& error) {
    throw HttpInterceptorException("Failed to process HMAC V3 response, error code: " +
                                   std::to_string(static_cast<int>(error.GetCode())));
  } catch (const util::KeyStoreException& error) {
    throw HttpInterceptorException(error.what());
  }
  ZLOG_TRACE("AuthHttpInterceptor: response processing successful for url: " << url << " with tag: "
                                                                             << ToString(response_tag_));
}

}  // namespace zagent::common
