#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zagent::audit::internal {

// System calls by their x86-64 numbers.
template <std::size_t Size>
using SyscallSet = std::array<std::uint32_t, Size>;

template <std::size_t Size>
[[nodiscard]] constexpr bool Contains(const SyscallSet<Size>& set, std::uint32_t syscall) {
  for (const std::uint32_t one : set) {
    if (one == syscall) return true;
  }
  return false;
}

}  // namespace zagent::audit::internal
