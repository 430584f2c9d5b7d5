#include "bench/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

// Never inlined: the compiler would take a mixture of the two ways of getting memory for a mistake.
__attribute__((noinline)) void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace zagent::bench {

std::size_t CountAllocations() {
  return allocations.load(std::memory_order_relaxed);
}

}  // namespace zagent::bench
