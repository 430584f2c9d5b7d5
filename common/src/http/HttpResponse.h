#pragma once

#include <string>
#include <vector>

#include "common/src/http/HttpHeaders.h"
#include "common/src/http/HttpTypes.h"

namespace zagent::common {

// What came back of a request: the read-only face, for those who waited.
class HttpResponse {
 public:
  HttpResponse() = default;
  HttpResponse(const HttpResponse&) = delete;
  HttpResponse& operator=(const HttpResponse&) = delete;
  virtual ~HttpResponse() = default;

  [[nodiscard]] virtual HttpStatus GetStatus() const = 0;
  // 0 when no answer came.
  [[nodiscard]] virtual long GetHttpCode() const = 0;
  // Printable text for logs: libcurl's words for what went wrong, or the reason of the status line. May be empty.
  [[nodiscard]] virtual const std::string& GetMessage() const = 0;
  [[nodiscard]] virtual const HttpHeaders& GetHeaders() const = 0;
  [[nodiscard]] virtual const std::vector<unsigned char>& GetPayload() const = 0;
  [[nodiscard]] virtual bool IsFinalized() const = 0;
  // True when the answer came through a proxy without the header "Z-SRV", which the platform sets on everything it
  // answers: what it says are the proxy's words.
  [[nodiscard]] virtual bool IsProxysOwn() const = 0;
};

}  // namespace zagent::common
