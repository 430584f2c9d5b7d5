#pragma once

#include <compare>
#include <string>

namespace zagent::audit::internal {

// A folder whose identity is of interest: with all below it, or by itself.
struct WatchedFolder {
  std::string path;  // absolute and normalised
  bool with_content = true;
  auto operator<=>(const WatchedFolder&) const = default;
};

}  // namespace zagent::audit::internal
