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
  std::size_t at = text.size();
  text.resize(at + bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text[at++] = kDigits[byte >> 4];
    text[at++] = kDigits[byte & 0x0f];
  }
}

std::string Sha256Hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw DigestException("SHA-256 calculation failed");
  }
  return ToHex({reinterpret_cast<const char*>(digest.data()), size});
}

}  // namespace zagent::common::util
