#include "common/src/util/HeapTrim.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <new>
#include <thread>
#include <utility>

namespace zagent::common::util {
namespace {

// As the allocator keeps them, when nobody has tuned it. Where it keeps more, some stay.
constexpr std::size_t kLargestKept = 1032;
constexpr std::size_t kSizeStep = 16;
constexpr int kKeptOfEachSize = 7;

struct Block {
  Block* next;
};

std::atomic<std::uint32_t> trims{0};
thread_local std::uint32_t seen_trims = 0;

// As many blocks of each size as may be kept; those that are not come from the heap.
Block* TakeKeptBlocks() {
  Block* taken = nullptr;
  for (std::size_t size = kLargestKept; size > kSizeStep; size -= kSizeStep) {
    for (int i = 0; i < kKeptOfEachSize; ++i) {
      void* const memory = std::malloc(size);
      if (memory == nullptr) return taken;
      taken = new (memory) Block{taken};
    }
  }
  return taken;
}

void FreeAll(Block* blocks) {
  while (blocks != nullptr) std::free(std::exchange(blocks, blocks->next));
}

}  // namespace

void FreeKeptBlocks() noexcept {
  const std::uint32_t now = trims.load(std::memory_order_relaxed);
  if (now == seen_trims) return;
  seen_trims = now;
  // What was kept for a thread that ends is free.
  Block* const blocks = TakeKeptBlocks();
  try {
    std::thread(FreeAll, blocks).join();
  } catch (const std::exception&) {
    FreeAll(blocks);
  }
}

int TrimHeap() {
  ++trims;
  FreeKeptBlocks();
  return malloc_trim(0);
}

}  // namespace zagent::common::util
