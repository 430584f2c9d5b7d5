#include "common/src/util/ErrnoText.h"

#include <array>
#include <cstring>

namespace zagent::common::util {

std::string ErrnoText(int error) {
  // Of the two forms of strerror_r this is the GNU one: it may answer with a constant text instead of the buffer.
  std::array<char, 256> buffer{};
  const char* words = strerror_r(error, buffer.data(), buffer.size());
  if (words == nullptr || std::strncmp(words, "Unknown error", 13) == 0) words = "Unknown Error";
  return std::string(words) + " (" + std::to_string(error) + ")";
}

}  // namespace zagent::common::util
