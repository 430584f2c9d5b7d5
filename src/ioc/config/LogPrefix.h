#pragma once

#include <string>

namespace zagent::ioc {

// "[IOC]: ". Every source of the rooms under src/ioc that logs includes this header, so that the ZLOG_* macros find
// this prefix before the one of the program.
const std::string& LogPrefix();

}  // namespace zagent::ioc
