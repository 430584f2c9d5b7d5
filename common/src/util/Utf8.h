#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// File names are bytes. These say what they mean as text.
namespace zagent::common::util {

// The code point that starts at `position` (below text.size()), and moves `position` behind it. A byte that begins no
// well-formed UTF-8 sequence (RFC 3629: no overlong forms, no surrogates) gives nothing and is passed alone, so that
// a stray lead byte never swallows the good characters behind it.
std::optional<char32_t> NextCodePoint(std::string_view text, std::size_t& position);

// The first position from `position` on whose byte is not one of 0x01 to 0x7F; text.size() when there is none. Most
// text is nothing else, and is passed eight bytes at a time.
std::size_t SkipAscii(std::string_view text, std::size_t position);

// `text` with U+FFFD in the place of every such byte.
std::string ReplaceInvalidUtf8(std::string_view text);

}  // namespace zagent::common::util
