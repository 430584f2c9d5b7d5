#pragma once

#include <string>

namespace zagent::fim {

// "[FIM]: ". Every source of this room that logs includes this header, so that the ZLOG_* macros find this prefix
// before the one of the program.
const std::string& LogPrefix();

}  // namespace zagent::fim
