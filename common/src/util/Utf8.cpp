#include "common/src/util/Utf8.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace zagent::common::util {
namespace {

// The lead bytes of sequences of two, three and four bytes, and the smallest code point that needs that many.
struct SequenceForm {
  std::uint8_t mask;
  std::uint8_t lead;
  std::size_t length;
  char32_t smallest;
};

constexpr std::array<SequenceForm, 4> kForms = {{
    {0x80, 0x00, 1, 0},
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
}};

constexpr char32_t kLargestCodePoint = 0x10FFFF;

bool IsSurrogate(char32_t code_point) {
  return code_point >= 0xD800 && code_point <= 0xDFFF;
}

std::optional<char32_t> Decode(std::string_view text, std::size_t position, const SequenceForm& form) {
  if (text.size() - position < form.length) return std::nullopt;
  char32_t code_point = static_cast<std::uint8_t>(text[position]) & static_cast<std::uint8_t>(~form.mask);
  for (std::size_t i = 1; i < form.length; ++i) {
    const auto byte = static_cast<std::uint8_t>(text[position + i]);
    if ((byte & 0xC0U) != 0x80U) return std::nullopt;
    code_point = (code_point << 6U) | (byte & 0x3FU);
  }
  if (code_point < form.smallest || code_point > kLargestCodePoint || IsSurrogate(code_point)) return std::nullopt;
  return code_point;
}

}  // namespace

std::optional<char32_t> NextCodePoint(std::string_view text, std::size_t& position) {
  const auto lead = static_cast<std::uint8_t>(text[position]);
  for (const SequenceForm& form : kForms) {
    if ((lead & form.mask) != form.lead) continue;
    const std::optional<char32_t> code_point = Decode(text, position, form);
    position += code_point ? form.length : 1;
    return code_point;
  }
  ++position;
  return std::nullopt;
}

std::size_t SkipAscii(std::string_view text, std::size_t position) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080U;
  constexpr std::uint64_t kOnes = 0x0101010101010101U;
  std::uint64_t bytes = 0;
  for (; text.size() - position >= sizeof(bytes); position += sizeof(bytes)) {
    std::memcpy(&bytes, text.data() + position, sizeof(bytes));
    // A byte of 0x00 borrows from its neighbour, and has its high bit then.
    if ((bytes & kHighBits) != 0 || ((bytes - kOnes) & kHighBits) != 0) break;
  }
  while (position < text.size() && static_cast<signed char>(text[position]) > 0) ++position;
  return position;
}

std::string ReplaceInvalidUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  std::size_t position = 0;
  while (position < text.size()) {
    std::size_t start = position;
    position = SkipAscii(text, position);
    valid.append(text, start, position - start);
    if (position == text.size()) break;
    start = position;
    if (NextCodePoint(text, position)) {
      valid.append(text, start, position - start);
    } else {
      valid += "\xEF\xBF\xBD";
    }
  }
  return valid;
}

}  // namespace zagent::common::util
