#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zagent::common::util {

// What leads to a value in a JSON document: names of members, and positions in arrays as decimal numbers.
using JsonPlace = std::vector<std::string>;

// `inner`, seen from where `outer` begins.
JsonPlace Within(JsonPlace outer, const JsonPlace& inner);

// The place as somebody writes it, from its step `first` on: "notify[1]".
std::string KeyText(const JsonPlace& place, std::size_t first = 0);

// Where in a text a byte stands, as an editor counts: from 1, a column a character of UTF-8.
struct TextPosition {
  std::size_t line = 1;
  std::size_t column = 1;
  bool operator==(const TextPosition&) const = default;
};
TextPosition PositionOf(std::string_view text, std::size_t offset);

// The offset at which the value of `place` begins in `json`, a text that the parser has accepted. As far as the place
// exists: else that of the last value on the way to it. Of two members of one name the first counts. Nothing recurses.
std::size_t OffsetOf(std::string_view json, const JsonPlace& place);

}  // namespace zagent::common::util
