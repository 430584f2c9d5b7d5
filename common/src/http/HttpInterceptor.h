#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/src/http/HttpException.h"
#include "common/src/http/HttpHeaders.h"

namespace zagent::common {

class MutableHttpResponse;

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

 protected:
  HttpInterceptor(const HttpInterceptor&) = default;
};

using HttpInterceptors = std::vector<std::unique_ptr<HttpInterceptor>>;

}  // namespace zagent::common
