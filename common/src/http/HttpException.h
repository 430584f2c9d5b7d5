#pragma once

#include <exception>
#include <stdexcept>
#include <string>

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

// The text of the exception that is being handled.
inline std::string DescribeCurrentException() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown failure";
  }
}

}  // namespace zagent::common
