#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

namespace zagent::edr {

// Texts are found by any view of them. Not noexcept, although it never throws: libstdc++ keeps the hashes of a table's
// texts only then, and would otherwise make those of the neighbours anew for each text that is looked for.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

}  // namespace zagent::edr
