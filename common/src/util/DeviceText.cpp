#include "common/src/util/DeviceText.h"

#include <sys/sysmacros.h>

#include <array>
#include <cstdio>

namespace zagent::common::util {

std::string DeviceText(dev_t device) {
  std::array<char, 32> text{};
  const int length = std::snprintf(text.data(), text.size(), "%02x:%02x", major(device), minor(device));
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace zagent::common::util
