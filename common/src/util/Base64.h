#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace zagent::common::util {

class Base64Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Standard alphabet, padded, without line breaks. Empty stays empty. Throws Base64Exception
// "Unknown Error (2) occurred in Base64 encoding" for more bytes than one call can encode.
[[nodiscard]] std::string Base64Encode(std::string_view bytes);

// Accepts exactly what Base64Encode makes: no blanks, no missing padding, no stray bits in the last character.
// Throws Base64Exception "Input string is not a valid base64 string".
[[nodiscard]] std::string Base64Decode(std::string_view text);

}  // namespace zagent::common::util
