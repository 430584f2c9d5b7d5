#include "common/src/util/Digest.h"

#include <openssl/evp.h>

#include <array>

namespace zagent::common::util {

std::string ToHex(std::string_view bytes) {
  std::string text;
  AppendHex(bytes, text);
  return text;
}

void AppendHex(std::string_view bytes, std::string& text) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  const std::size_t end = text.size();
  text.resize(end + bytes.size() * 2);
  // The compiler cannot tell a string's bytes from what they lie in: by its operator each would be looked up anew.
  char* digit = text.data() + end;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    *digit++ = kDigits[byte >> 4];
    *digit++ = kDigits[byte & 0x0f];
  }
}

std::string Sha256Hex(std::string_view bytes) {
  // Looked up in the library's providers once: for a short text that is most of the work.
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (algorithm == nullptr || EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, algorithm, nullptr) != 1) {
    throw DigestException("SHA-256 calculation failed");
  }
  return ToHex({reinterpret_cast<const char*>(digest.data()), size});
}

}  // namespace zagent::common::util
