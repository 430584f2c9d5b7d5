#pragma once

#include <stdexcept>

namespace zagent::ioc::internal::protobuf {

// An event that is not reported, and why.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zagent::ioc::internal::protobuf
