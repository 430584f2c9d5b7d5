#include "common/src/http/MutableHttpResponse.h"

#include "common/src/http/HttpException.h"

namespace zagent::common {

void MutableHttpResponse::RequireOpen(const char* refusal) const {
  if (finalized_) throw HttpException(refusal);
}

void MutableHttpResponse::AddHeader(const std::string& name, const std::string& value) {
  RequireOpen("Cannot add header to HttpResponse after it has been finalized");
  headers_[name] = value;
}

void MutableHttpResponse::RemoveHeader(const std::string& name) {
  RequireOpen("Cannot remove header from HttpResponse after it has been finalized");
  headers_.erase(name);
}

void MutableHttpResponse::ClearHeaders() {
  RequireOpen("Cannot remove header from HttpResponse after it has been finalized");
  headers_.clear();
}

void MutableHttpResponse::ResetForNextAttempt() {
  ClearHeaders();
  message_.clear();
}

void MutableHttpResponse::SetStatus(HttpStatus status) {
  RequireOpen("Cannot update HttpResponse status after it has been finalized");
  if (status == HttpStatus::NotStarted && status_ != HttpStatus::NotStarted) {
    throw HttpException("Cannot reset HttpResponse to initial state");
  }
  status_ = status;
}

void MutableHttpResponse::SetHttpCode(long http_code) {
  RequireOpen("Cannot update HttpResponse status after it has been finalized");
  http_code_ = http_code;
}

void MutableHttpResponse::SetMessage(const std::string& message) {
  RequireOpen("Cannot update HttpResponse status after it has been finalized");
  message_ = message;
}

void MutableHttpResponse::SetProxysOwn(bool proxys_own) {
  RequireOpen("Cannot update HttpResponse status after it has been finalized");
  proxys_own_ = proxys_own;
}

}  // namespace zagent::common
