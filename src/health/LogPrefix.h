#pragma once

#include <string>

namespace zagent::health {

// "[EDR]: ": the host's own part of the log. Every source of this room that logs includes this header, so that the
// ZLOG_* macros find this prefix before the one of the program.
const std::string& LogPrefix();

}  // namespace zagent::health
