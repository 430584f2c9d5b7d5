#include "common/src/tasks/SynchronizedQueue.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zagent::common {
namespace {

TEST(SynchronizedQueueTest, GivesTheOldestFirst) {
  SynchronizedQueue<std::unique_ptr<int>> queue;
  EXPECT_TRUE(queue.Empty());
  for (int i = 1; i <= 3; ++i) queue.Push(std::make_unique<int>(i));
  EXPECT_FALSE(queue.Empty());
  EXPECT_EQ(queue.Size(), 3U);
  EXPECT_EQ(*queue.Pop(), 1);
  const std::deque<std::unique_ptr<int>> rest = queue.PopAll();
  ASSERT_EQ(rest.size(), 2U);
  EXPECT_EQ(*rest.front(), 2);
  EXPECT_EQ(*rest.back(), 3);
  EXPECT_TRUE(queue.Empty());
}

TEST(SynchronizedQueueTest, SaysThatThereIsNothingToTake) {
  SynchronizedQueue<std::unique_ptr<int>> queue;
  const auto error_of = [](const auto& call) {
    try {
      call();
    } catch (const SynchronizedQueueException& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(error_of([&] { queue.Pop(); }), "Cannot pop from an empty SynchronizedQueue");
  EXPECT_EQ(error_of([&] { queue.PopAll(); }), "Cannot pop all from an empty SynchronizedQueue");
}

TEST(SynchronizedQueueTest, NothingIsLostBetweenThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  SynchronizedQueue<std::unique_ptr<int>> queue;
  std::vector<std::thread> producers;
  for (int thread = 0; thread < kThreads; ++thread) {
    producers.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) queue.Push(std::make_unique<int>(i));
    });
  }
  std::size_t taken = 0;
  while (taken < kThreads * kEach) {
    if (queue.Empty()) {
      std::this_thread::yield();
    } else {
      taken += queue.PopAll().size();
    }
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(taken, std::size_t{kThreads} * kEach);
  EXPECT_TRUE(queue.Empty());
}

}  // namespace
}  // namespace zagent::common
