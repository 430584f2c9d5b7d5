#include "common/src/http/interceptors/AuthTag.h"

#include <array>
#include <stdexcept>

namespace zagent::common {
namespace {

constexpr std::array<const char*, 6> kNames = {"None",         "ZAuthV3Tag-1", "ZAuthV3Tag-2",
                                               "ZAuthV3Tag-3", "ZAuthV3Tag-4", "ZAuthV3Tag-5"};

}  // namespace

std::string ToString(AuthTag tag) {
  const auto value = static_cast<std::uint32_t>(tag);
  if (value >= kNames.size()) throw std::invalid_argument("Invalid AuthTag Enum: " + std::to_string(value));
  return kNames[value];
}

AuthTag ParseAuthTag(const std::string& text) {
  for (std::uint32_t value = 0; value < kNames.size(); ++value) {
    if (text == kNames[value]) return static_cast<AuthTag>(value);
  }
  throw std::invalid_argument("Invalid AuthTag: " + text);
}

}  // namespace zagent::common
