#pragma once

#include <malloc.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

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

// Frees as many small blocks as the allocator keeps for the calling thread, which count as in use for as long.
constexpr std::size_t kKeptBytes = 120'000;  // of 240,000, for what others do meanwhile
inline void LeaveKeptBlocks() {
  std::vector<std::unique_ptr<char[]>> blocks;
  for (std::size_t size = 24; size <= 1032; size += 16) {
    for (int i = 0; i < 7; ++i) blocks.push_back(std::make_unique<char[]>(size));
  }
}

// Whether the heap comes down to this size within a time that is long for everybody.
inline bool HeapShrinksTo(std::size_t size) {
  for (int i = 0; i < 3'000; ++i) {
    if (HeapInUse() <= size) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace zagent::fakes
