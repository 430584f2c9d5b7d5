#pragma once

#include <cstdint>
#include <string>

namespace zagent::common {

// What a "Content-Range" says of a part: its first and last byte, counted from 0, and the size of the whole.
struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;   // at least `first`
  std::uint64_t total = 0;  // above `last`
};

// "bytes 0-99/1234". Throws HttpException "Invalid Content-Range: <text>" for another unit, an unknown total ("*"), and
// numbers that are none or contradict each other.
ContentRange ParseContentRange(const std::string& text);

}  // namespace zagent::common
