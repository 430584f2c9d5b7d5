#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace zagent::common::util {

class DigestException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Two lower-case hexadecimal digits a byte.
[[nodiscard]] std::string ToHex(std::string_view bytes);
void AppendHex(std::string_view bytes, std::string& text);

// The SHA-256 of `bytes` as 64 lower-case hexadecimal digits. Throws DigestException when OpenSSL refuses.
[[nodiscard]] std::string Sha256Hex(std::string_view bytes);

}  // namespace zagent::common::util
