#pragma once

#include <cstdint>
#include <string>

namespace zagent::common {

// What a request asks of the platform beside what its URL says; signed under version 3.
enum class HmacRequestAction : std::uint32_t { None = 0, Activate = 1, RotateSecret = 2, RegisterPublicKey = 3 };

// "None", "Activate", "RotateSecret", "RegisterPublicKey". Throws std::invalid_argument
// "Invalid HmacRequestAction: <value>".
std::string ToString(HmacRequestAction action);
// Throws std::invalid_argument "Invalid HmacRequestAction string: <text>".
HmacRequestAction ParseHmacRequestAction(const std::string& text);

}  // namespace zagent::common
