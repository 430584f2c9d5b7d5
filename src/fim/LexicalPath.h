#pragma once

#include <string>
#include <string_view>

namespace zagent::fim::internal {

// The path without doubled slashes, ".", ".." and a slash at its end, by its text alone: where a link stands before a
// "..", the disk means another one. "" stays empty, "/" and what leads above it are "/", a relative path stays
// relative.
[[nodiscard]] std::string LexicallyNormal(std::string_view path);

}  // namespace zagent::fim::internal
