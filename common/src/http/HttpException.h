#pragma once

#include <stdexcept>

namespace zagent::common {

class HttpException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The one failure of all interceptors; on the request side it ends the request unsent.
class HttpInterceptorException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zagent::common
