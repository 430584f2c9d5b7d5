#pragma once

#include <string>

namespace zagent::common::util {

// The text of the exception that is being handled, for whoever catches everything; "unknown failure" for what is no
// std::exception. Called in a handler only.
[[nodiscard]] std::string DescribeCurrentException();

}  // namespace zagent::common::util
