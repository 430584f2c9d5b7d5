#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "common/src/http/HttpException.h"
#include "common/src/http/HttpHeaders.h"
#include "common/src/http/HttpTypes.h"

namespace zagent::common {

class MutableHttpResponse;

// What one attempt came to, as the steps of a chain are shown it. Valid during the call only.
struct HttpAttempt {
  const std::string& url;  // as the chain left it, so as it was sent
  HttpStatus status;
  long http_code;                       // 0: no answer came
  const HttpHeaders& headers;           // of the answer
  std::span<const unsigned char> body;  // of the answer as it came, its first 64 KiB
  bool is_proxys_own = false;           // the answer came through a proxy and is not marked as the platform's
};

// One step through which a request passes before the transfer and its response after it: compression, signing.
// Requests pass in the order of building, responses in reverse. Steps run on the HTTP worker without any lock of the
// service. Every failure is an HttpInterceptorException: on the request side the request is never sent.
class HttpInterceptor {
 public:
  enum class ChunkResult {
    Continue = 0,
    Replaced = 1,  // `output` takes the chunk's place
    Stop = 2,      // the interceptors that would follow are not called
  };

  HttpInterceptor() = default;
  HttpInterceptor& operator=(const HttpInterceptor&) = delete;
  virtual ~HttpInterceptor() = default;

  [[nodiscard]] virtual std::unique_ptr<HttpInterceptor> Clone() const = 0;

  // Called anew for every attempt, always with what the caller originally gave.
  virtual void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                              const std::string& method) = 0;
  // The body of a response as it came, before the response has it.
  virtual ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                           std::vector<unsigned char>& output) = 0;
  // The whole response of a successful exchange.
  virtual void ProcessResponse(const std::string& url, MutableHttpResponse& response) = 0;

  // Called once, on the caller's thread, before the request is queued, and for the first step of a chain only, which
  // alone sees what the caller gave: work on the payload that must not hold up the worker. Must not throw: what fails
  // here is told by ProcessRequest.
  virtual void PrepareRequest(const std::vector<unsigned char>& /*payload*/) {}
  // Every attempt that was sent and not cancelled, failed ones too, before it is known whether another follows. It
  // changes nothing of this one's outcome: what a step learns here holds from its next ProcessRequest on. An exception
  // is logged and goes no further.
  virtual void OnAttemptEnded(const HttpAttempt& /*attempt*/) {}

 protected:
  HttpInterceptor(const HttpInterceptor&) = default;
};

using HttpInterceptors = std::vector<std::unique_ptr<HttpInterceptor>>;

}  // namespace zagent::common
