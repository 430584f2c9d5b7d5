#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

namespace zagent::edr {

// Texts are found by any view of them. Not noexcept, although it never throws: the tables of the standard library keep
// the hash of each text for that reason, where they would make it anew for the neighbours of each text that is looked
// for.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

}  // namespace zagent::edr
