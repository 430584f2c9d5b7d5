#include "common/src/http/HmacRequestAction.h"

#include <array>
#include <stdexcept>

namespace zagent::common {
namespace {

constexpr std::array<const char*, 4> kNames = {"None", "Activate", "RotateSecret", "RegisterPublicKey"};

}  // namespace

std::string ToString(HmacRequestAction action) {
  const auto value = static_cast<std::uint32_t>(action);
  if (value >= kNames.size()) throw std::invalid_argument("Invalid HmacRequestAction: " + std::to_string(value));
  return kNames[value];
}

HmacRequestAction ParseHmacRequestAction(const std::string& text) {
  for (std::uint32_t value = 0; value < kNames.size(); ++value) {
    if (text == kNames[value]) return static_cast<HmacRequestAction>(value);
  }
  throw std::invalid_argument("Invalid HmacRequestAction string: " + text);
}

}  // namespace zagent::common
