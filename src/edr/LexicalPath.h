#pragma once

#include <string>
#include <string_view>

namespace zagent::edr {

// The path without doubled slashes, "." and a slash at its end: the same to whoever looks it up. "" stays empty, a
// relative path stays relative.
[[nodiscard]] std::string Tidy(std::string_view path);

// The tidy path without "..", by its text alone: where a link stands before a "..", the disk means another one. What
// leads above "/" is "/".
[[nodiscard]] std::string LexicallyNormal(std::string_view path);
// Whether a path is its own lexically normal form. May say no for one that is; what events tell of is found to be so
// without a copy.
[[nodiscard]] bool IsLexicallyNormal(std::string_view path);

}  // namespace zagent::edr
