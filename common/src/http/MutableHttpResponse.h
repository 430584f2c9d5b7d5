#pragma once

#include "common/src/http/HttpResponse.h"

namespace zagent::common {

// The face for those who fill a response: the HTTP worker and the interceptors. Once finalized it refuses every change
// with an HttpException.
class MutableHttpResponse : public HttpResponse {
 public:
  // No body in memory grows beyond this.
  static constexpr std::size_t kMaxPayloadInMemory = 64UL * 1024 * 1024;

  [[nodiscard]] HttpStatus GetStatus() const override { return status_; }
  [[nodiscard]] long GetHttpCode() const override { return http_code_; }
  [[nodiscard]] const std::string& GetMessage() const override { return message_; }
  [[nodiscard]] const HttpHeaders& GetHeaders() const override { return headers_; }
  [[nodiscard]] bool IsFinalized() const override { return finalized_; }
  [[nodiscard]] bool IsProxysOwn() const override { return proxys_own_; }

  // Replaces a header of the same name.
  void AddHeader(const std::string& name, const std::string& value);
  void RemoveHeader(const std::string& name);
  void ClearHeaders();
  [[nodiscard]] bool HasHeader(const std::string& name) const { return headers_.contains(name); }

  // Throws "Cannot reset HttpResponse to initial state" for NotStarted after another status.
  void SetStatus(HttpStatus status);
  void SetHttpCode(long http_code);
  void SetMessage(const std::string& message);
  void SetProxysOwn(bool proxys_own);

  // Before every attempt; only the first does something.
  virtual void Begin() {}
  // Replaces the whole body; on disk, appends to it unless interceptors process the response.
  virtual void UpdatePayload(std::vector<unsigned char> payload) = 0;
  // The next range of the body.
  virtual void AppendPayload(std::vector<unsigned char> payload) = 0;
  // Drops what ranges have gathered.
  virtual void ClearPayload() = 0;
  // The body of an answer that ended the exchange with an error.
  virtual void KeepErrorPayload(std::vector<unsigned char> payload) = 0;
  // Around the interceptors' work on the whole body.
  virtual void BeginProcessing() {}
  virtual void EndProcessing() {}
  // The exchange has succeeded: the body gets its final place.
  virtual void Save() {}

  virtual void Finalize() { finalized_ = true; }
  // Forgets one attempt's headers and words, for the next one; what ranges have gathered stays.
  void ResetForNextAttempt();

 protected:
  // Throws HttpException with the text `refusal` once finalized.
  void RequireOpen(const char* refusal) const;

 private:
  HttpStatus status_ = HttpStatus::NotStarted;
  long http_code_ = 0;
  std::string message_;
  HttpHeaders headers_;
  bool finalized_ = false;
  bool proxys_own_ = false;
};

}  // namespace zagent::common
