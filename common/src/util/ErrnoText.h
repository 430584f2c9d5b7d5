#pragma once

#include <string>

namespace zagent::common::util {

// "No such file or directory (2)". Thread-safe; an errno without words gives "Unknown Error (<number>)".
std::string ErrnoText(int error);

}  // namespace zagent::common::util
