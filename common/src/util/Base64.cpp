#include "common/src/util/Base64.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <limits>

namespace zagent::common::util {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kInvalid = 0xff;

constexpr std::array<std::uint8_t, 256> MakeDecodingTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(kInvalid);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}
constexpr std::array<std::uint8_t, 256> kDecodingTable = MakeDecodingTable();

[[noreturn]] void RefuseInput() {
  throw Base64Exception("Input string is not a valid base64 string");
}

std::size_t PaddingOf(std::string_view text) {
  if (text.ends_with("==")) return 2;
  return text.ends_with('=') ? 1 : 0;
}

}  // namespace

std::string Base64Encode(std::string_view bytes) {
  // OpenSSL counts in int, on both sides.
  constexpr std::size_t kMost = static_cast<std::size_t>(std::numeric_limits<int>::max()) / 4 * 3;
  if (bytes.size() > kMost) throw Base64Exception("Unknown Error (2) occurred in Base64 encoding");
  const std::size_t length = (bytes.size() + 2) / 3 * 4;
  std::string text(length + 1, '\0');  // OpenSSL ends its text with a NUL
  const int written =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  if (written < 0 || static_cast<std::size_t>(written) != length) {
    throw Base64Exception("Unknown Error (3) occurred in Base64 encoding");
  }
  text.resize(length);
  return text;
}

std::string Base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) RefuseInput();
  const std::size_t padding = PaddingOf(text);
  text.remove_suffix(padding);
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t bits = 0;
  unsigned count = 0;
  for (const char c : text) {
    const std::uint8_t value = kDecodingTable[static_cast<unsigned char>(c)];
    if (value == kInvalid) RefuseInput();
    bits = (bits << 6) | value;
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<char>((bits >> count) & 0xff));
    }
  }
  if ((bits & ((1U << count) - 1)) != 0) RefuseInput();
  return bytes;
}

}  // namespace zagent::common::util
