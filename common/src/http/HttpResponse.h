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
  // Printable text for logs: the reason of the status line, or libcurl's words for what went wrong. May be empty.
  [[nodiscard]] virtual const std::string& GetMessage() const = 0;
  [[nodiscard]] virtual const HttpHeaders& GetHeaders() const = 0;
  [[nodiscard]] virtual const std::vector<unsigned char>& GetPayload() const = 0;
  [[nodiscard]] virtual bool IsFinalized() const = 0;
};

}  // namespace zagent::common
