#pragma once

#include <stdexcept>
#include <string>

namespace zagent::common::util {

class XORException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Keeps a secret from a casual look into memory or a core file, not from somebody who reads the program: every byte is
// combined with `byte` by exclusive or, then encoded in base64. Empty stays empty.

// Throws XORException "Failed to conceal data: <reason>".
[[nodiscard]] std::string Conceal(const std::string& text, unsigned char byte);
// Throws XORException "Failed to reveal data: <reason>" when `concealed` is no base64. The caller cleanses the result.
[[nodiscard]] std::string Reveal(const std::string& concealed, unsigned char byte);

}  // namespace zagent::common::util
