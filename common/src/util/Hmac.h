#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace zagent::common::util {

class HmacDigestException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The 32 raw bytes of HMAC-SHA-256. Throws HmacDigestException "HMAC-SHA-256 calculation failed".
[[nodiscard]] std::string HmacSha256(std::string_view key, std::string_view message);

// The same as 64 lower-case hexadecimal digits.
[[nodiscard]] std::string HmacSha256Hex(std::string_view key, std::string_view message);

}  // namespace zagent::common::util
