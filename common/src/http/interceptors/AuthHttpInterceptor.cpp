#include "common/src/http/interceptors/AuthHttpInterceptor.h"

#include <Poco/Exception.h>
#include <Poco/URI.h>

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

Poco::URI ParseAsSent(const std::string& url) {
  try {
    Poco::URI uri(url);
    uri.normalize();
    if (uri.getPath().empty()) uri.setPath("/");
    uri.setFragment("");
    return uri;
  } catch (const Poco::Exception& error) {
    throw HttpInterceptorException("Failed to set auth headers, error: " + error.displayText());
  }
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
                                         AuthTag response_tag, const util::Clock& clock)
    : config_(std::move(config)), request_tag_(request_tag), response_tag_(response_tag), clock_(clock) {
  if (config_->GetVersion() == HmacVersion::HmacV3) {
    if (config_->IsFedramp()) throw HttpInterceptorException("Hmac V3 is not supported for fedramp");
    throw HttpInterceptorException("Hmac V3 is not available, use V1 or V2");
  }
  if (!IsLegalInRequest(request_tag_)) {
    throw HttpInterceptorException("Auth-Tag: " + ToString(request_tag_) + " is not legal in request");
  }
  if (!IsLegalInResponse(response_tag_)) {
    throw HttpInterceptorException("Auth-Tag: " + ToString(response_tag_) + " is not legal in reponse");
  }
}

std::unique_ptr<HttpInterceptor> AuthHttpInterceptor::Clone() const {
  return std::make_unique<AuthHttpInterceptor>(*this);
}

void AuthHttpInterceptor::ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                                         const std::string& method) {
  if (method != "GET" && method != "PUT" && method != "POST") {
    throw HttpInterceptorException("Invalid HTTP Method: " + method);
  }
  const Poco::URI uri = ParseAsSent(url);
  url = uri.toString();
  Request request{url, payload, headers, method, uri.getPathEtc(), util::FormatUtc(util::ToNanoseconds(clock_.Now()))};
  try {
    switch (config_->GetVersion()) {
      case HmacVersion::HmacV1:
        return SignV1(request);
      case HmacVersion::HmacV2:
        return SignV2(request);
      case HmacVersion::HmacV3:
        break;
    }
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
  const std::string key_id = FetchKey("KIdV2");
  const std::string message = request.method + ";" + request.timestamp + ";" + key_id + ";" + request.path_etc;
  SetHeaders(request, "ZHmacV2Auth", key_id, "HmacV2", message);
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

void AuthHttpInterceptor::ProcessResponse(const std::string& url, MutableHttpResponse&) {
  // Versions 1 and 2 cannot check a response: whoever asked for it must not take this one for checked.
  if (response_tag_ != AuthTag::None) throw HttpInterceptorException("Response context not initialized");
  ZLOG_TRACE("AuthHttpInterceptor: response processing not required for url: " << url);
}

}  // namespace zagent::common
