#pragma once

#include <cstddef>
#include <cstring>

namespace zagent::fakes {

// The place of a virtual operation in its class's table, counted from 0 (the two destructors take two places). The
// pointer to a virtual member holds its offset in the table plus one.
template <typename Member>
std::size_t VirtualSlot(Member member) {
  struct {
    std::ptrdiff_t offset_plus_one;
    std::ptrdiff_t adjustment;
  } pointer{};
  static_assert(sizeof(pointer) == sizeof(member));
  std::memcpy(&pointer, &member, sizeof(pointer));
  return static_cast<std::size_t>(pointer.offset_plus_one - 1) / sizeof(void*);
}

}  // namespace zagent::fakes
