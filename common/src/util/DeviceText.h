#pragma once

#include <sys/types.h>

#include <string>

namespace zagent::common::util {

// Device number as audit's PATH records write it: major and minor in lowercase hexadecimal, at least two digits each,
// joined by a colon ("fd:00").
std::string DeviceText(dev_t device);

}  // namespace zagent::common::util
