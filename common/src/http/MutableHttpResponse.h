#pragma once

#include "common/src/http/HttpResponse.h"

namespace zagent::common {

// The face for those who fill a response: the HTTP worker and the interceptors. Once finalized it refuses every change
// with an HttpException.
class MutableHttpResponse : public HttpResponse {
 public:
  [[nodiscard]] HttpStatus GetStatus() const override { return status_; }
  [[nodiscard]] long GetHttpCode() const override { return http_code_; }
  [[nodiscard]] const std::string& GetMessage() const override { return message_; }
  [[nodiscard]] const HttpHeaders& GetHeaders() const override { return headers_; }
  [[nodiscard]] bool IsFinalized() const override { return finalized_; }

  // Replaces a header of the same name.
  void AddHeader(const std::string& name, const std::string& value);
  void RemoveHeader(const std::string& name);
  void ClearHeaders();
  [[nodiscard]] bool HasHeader(const std::string& name) const { return headers_.contains(name); }

  // Throws "Cannot reset HttpResponse to initial state" for NotStarted after another status.
  void SetStatus(HttpStatus status);
  void SetHttpCode(long http_code);
  void SetMessage(const std::string& message);

  // Replaces the whole body.
  virtual void UpdatePayload(std::vector<unsigned char> payload) = 0;

  void Finalize() { finalized_ = true; }

 protected:
  // Throws HttpException with the text `refusal` once finalized.
  void RequireOpen(const char* refusal) const;

 private:
  HttpStatus status_ = HttpStatus::NotStarted;
  long http_code_ = 0;
  std::string message_;
  HttpHeaders headers_;
  bool finalized_ = false;
};

}  // namespace zagent::common
