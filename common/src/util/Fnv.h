#pragma once

#include <cstddef>
#include <cstdint>

namespace zagent::common::util {

// The 64-bit FNV-1a hash: quick and well spread, no protection against intent.
[[nodiscard]] constexpr std::uint64_t Fnv1a64(const unsigned char* data, std::size_t size) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (std::size_t i = 0; i < size; ++i) {
    hash ^= data[i];
    hash *= 0x100000001b3U;
  }
  return hash;
}

}  // namespace zagent::common::util
