#pragma once

#include <string>

namespace zagent::common {

enum class HttpMethod { Get = 0, Post = 1, Put = 2 };

// "GET", "POST", "PUT"; empty for any other value.
std::string ToString(HttpMethod method);

enum class HttpVersion { Default = 0, Http11 = 2 };

// The outcome of one attempt.
enum class HttpStatus {
  Aborted = 2,
  NotStarted = 3,
  Unknown = NotStarted,  // not classified
  Success = 4,
  PartialSuccess = 5,
  ClientError = 6,
  ServerError = 7,
  NetworkError = 8,
  ProxyError = 9,
};

}  // namespace zagent::common
