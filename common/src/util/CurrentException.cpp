#include "common/src/util/CurrentException.h"

#include <exception>

namespace zagent::common::util {

std::string DescribeCurrentException() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown failure";
  }
}

}  // namespace zagent::common::util
