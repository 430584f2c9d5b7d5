#include "common/src/util/HeapTrim.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <thread>

#include "tests/fakes/Heap.h"

namespace zagent::common::util {
namespace {

// How much less of the heap is in use behind the action, on a thread for which the allocator has kept what it may.
std::ptrdiff_t FreedBy(const std::function<void()>& action) {
  std::ptrdiff_t freed = 0;
  std::thread([&] {
    FreeKeptBlocks();  // has answered all trims so far
    fakes::LeaveKeptBlocks();
    const std::size_t before = fakes::HeapInUse();
    action();
    freed = static_cast<std::ptrdiff_t>(before) - static_cast<std::ptrdiff_t>(fakes::HeapInUse());
  }).join();
  return fakes::kKnowsItsHeap ? freed : static_cast<std::ptrdiff_t>(fakes::kKeptBytes);
}
std::ptrdiff_t FreedByNothing(const std::function<void()>& action) {
  return fakes::kKnowsItsHeap ? FreedBy(action) : 0;
}

constexpr std::ptrdiff_t kAll = fakes::kKeptBytes;

TEST(HeapTrimTest, WhatIsKeptForAThreadIsFreedWhenItHasNothingToDoBehindATrim) {
  EXPECT_GE(FreedBy([] {
              std::thread(TrimHeap).join();
              FreeKeptBlocks();
            }),
            kAll);
}

TEST(HeapTrimTest, WithoutATrimNothingIsFreed) {
  EXPECT_LT(FreedByNothing(FreeKeptBlocks), kAll / 10);
  EXPECT_LT(FreedByNothing([] { std::thread(TrimHeap).join(); }), kAll / 10) << "nobody else can free it";
}

TEST(HeapTrimTest, OneTrimIsAnsweredOnce) {
  EXPECT_LT(FreedByNothing([] {
              TrimHeap();
              fakes::LeaveKeptBlocks();
              FreeKeptBlocks();
            }),
            kAll / 10);
}

TEST(HeapTrimTest, WhoTrimsKeepsNothing) {
  EXPECT_GE(FreedBy(TrimHeap), kAll);
}

}  // namespace
}  // namespace zagent::common::util
