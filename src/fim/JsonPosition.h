#pragma once

#include <cstddef>
#include <string_view>

#include "src/fim/ManifestMistake.h"

namespace zagent::fim::internal {

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

}  // namespace zagent::fim::internal
