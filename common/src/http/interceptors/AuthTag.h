#pragma once

#include <cstdint>
#include <string>

namespace zagent::common {

// What a request or response proves with its signature.
enum class AuthTag : std::uint32_t { None = 0, Tag1 = 1, Tag2 = 2, Tag3 = 3, Tag4 = 4, Tag5 = 5 };

// "None", "ZAuthV3Tag-1" to "ZAuthV3Tag-5". Throws std::invalid_argument "Invalid AuthTag Enum: <value>".
std::string ToString(AuthTag tag);
// Throws std::invalid_argument "Invalid AuthTag: <text>".
AuthTag ParseAuthTag(const std::string& text);

}  // namespace zagent::common
