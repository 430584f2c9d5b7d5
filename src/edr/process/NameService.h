#pragma once

#include <cstdint>
#include <string>

namespace zagent::common {

// Names of user and group ids from the password and group databases (getpwuid_r, getgrgid_r), cached for the life of
// the process. An id without a name answers its decimal digits, logs a warning and is asked for again next time.
// Thread-safe.
std::string UserName(std::uint32_t uid);
std::string GroupName(std::uint32_t gid);

}  // namespace zagent::common
