#pragma once

#include <memory>
#include <string>

#include "common/src/http/CurlHandles.h"
#include "common/src/http/MutableHttpRequest.h"
#include "common/src/http/TransferOutcome.h"

namespace zagent::common {

// One attempt of a request on one easy handle. Lives on the HTTP worker only.
class HttpTransfer {
 public:
  // Runs the request's interceptors and sets every option. Throws HttpInterceptorException or, with the line to log,
  // HttpException.
  HttpTransfer(std::shared_ptr<MutableHttpRequest> request, const std::string& ca_path);
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;
  ~HttpTransfer() = default;

  [[nodiscard]] CURL* Get() const { return easy_.get(); }
  [[nodiscard]] MutableHttpRequest& Request() const { return *request_; }
  [[nodiscard]] const std::shared_ptr<MutableHttpRequest>& SharedRequest() const { return request_; }

  // What libcurl knows after the transfer.
  [[nodiscard]] TransferOutcome Outcome(CURLcode result) const;
  // The address of this host that the connection used; empty without one.
  [[nodiscard]] std::string LocalIp() const;

 private:
  template <typename Value>
  void Set(CURLoption option, Value value, const char* failure);

  void SetCallbacks();
  void SetTlsVerification();
  void SetProxy(const std::string& ca_path);
  void SetProxyType(HttpProxyType type, const std::string& ca_path);
  void SetProxyCertificate(const std::string& ca_path);
  void SetBasics();
  void SetCertificatePath(const std::string& ca_path);
  void SetMethod();
  void SetUrl();
  void SetHeaders();
  void SetClientCertificate();
  void AppendHeader(const std::string& name, const std::string& value);
  void AppendHeaderLine(const std::string& line, const std::string& name);

  static std::size_t OnWrite(char* data, std::size_t size, std::size_t count, void* user);
  static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* user);
  static int OnSeek(void* user, curl_off_t offset, int origin);
  static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* user);
  static int OnProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  [[nodiscard]] bool LogIfCancelled() const;

  std::shared_ptr<MutableHttpRequest> request_;
  const std::string& url_;
  HeaderList headers_;
  std::size_t read_offset_ = 0;  // of a PUT
  bool proxy_used_ = false;
  EasyHandle easy_;  // goes before what its options point to
};

}  // namespace zagent::common
