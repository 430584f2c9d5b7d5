#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zagent::common {

// Header names are compared without case, as HTTP wants: "z-srv" is "Z-SRV".
struct HeaderNameHash {
  std::size_t operator()(const std::string& name) const;
};
struct HeaderNameEqual {
  bool operator()(const std::string& left, const std::string& right) const;
};

using HttpHeaders = std::unordered_map<std::string, std::string, HeaderNameHash, HeaderNameEqual>;

// Text from the other side as a log line may show it: anything but printable ASCII becomes '?', and it ends after
// `limit` characters.
std::string PrintableText(std::string_view text, std::size_t limit = 200);

}  // namespace zagent::common
