#pragma once

#include <malloc.h>

#include <cstddef>

namespace zagent::fakes {

// A sanitizer's own heap is not counted by mallinfo2.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKnowsItsHeap = false;
#else
constexpr bool kKnowsItsHeap = true;
#endif

// The bytes that this process holds of the heap, by the C library's count.
inline std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace zagent::fakes
