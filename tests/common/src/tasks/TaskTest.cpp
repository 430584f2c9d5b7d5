#include "common/src/tasks/Task.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zagent::common {
namespace {

// Whether an object lies within a task.
bool LiesIn(const Task& task, const void* object) {
  const std::less<> before;
  return !before(object, &task) && before(object, &task + 1);
}

// A closure of a given size that says where it is when it is called.
template <std::size_t Size>
struct Located {
  const void** place;
  std::array<unsigned char, Size - sizeof(place)> rest{};
  void operator()() { *place = this; }
};

// One that cannot promise to be moved.
struct ThrowingMove {
  explicit ThrowingMove(const void** where) : place(where) {}
  ThrowingMove(ThrowingMove&& other) noexcept(false) : place(other.place) {}
  void operator()() { *place = this; }
  const void** place;
};

TEST(TaskTest, OwnsWhatCanOnlyBeMoved) {
  int seen = 0;
  Task task = [number = std::make_unique<int>(7), &seen]() mutable { seen = (*number)++; };
  task();
  EXPECT_EQ(seen, 7);
  task();
  EXPECT_EQ(seen, 8);
}

TEST(TaskTest, TakesWhateverCanBeCalled) {
  std::string said;
  const std::function<void()> function = [&said] { said += "function "; };
  Task copy = function;
  Task moved = std::function<void()>([&said] { said += "moved"; });
  copy();
  moved();
  EXPECT_EQ(said, "function moved");
  EXPECT_TRUE(function);
}

TEST(TaskTest, AnEmptyOneSaysSoAndFailsWhenItIsCalled) {
  Task none;
  Task null = nullptr;
  Task function = std::function<void()>();
  for (Task* task : {&none, &null, &function}) {
    EXPECT_FALSE(*task);
    EXPECT_THROW((*task)(), std::bad_function_call);
  }
  EXPECT_TRUE(Task([] {}));
}

TEST(TaskTest, ASmallClosureLiesInPlace) {
  const void* place = nullptr;
  Task first = Located<Task::kRoom>{&place};
  first();
  EXPECT_TRUE(LiesIn(first, place));
  Task second = std::move(first);
  second();
  EXPECT_TRUE(LiesIn(second, place));
}

TEST(TaskTest, ALargeClosureAndOneWhoseMoveMayFailLieElsewhereAndStayThere) {
  const void* place = nullptr;
  std::array<Task, 2> tasks{Located<Task::kRoom + 8>{&place}, ThrowingMove(&place)};
  for (Task& first : tasks) {
    first();
    const void* const before = place;
    EXPECT_FALSE(LiesIn(first, before));
    place = nullptr;
    Task second = std::move(first);
    second();
    EXPECT_EQ(place, before);
  }
}

TEST(TaskTest, WhatThrowsThrowsThroughIt) {
  Task task = [] { throw std::runtime_error("broken task"); };
  EXPECT_THROW(task(), std::runtime_error);
  EXPECT_TRUE(task) << "it is still the owner's to destroy";
}

TEST(TaskTest, AClosureIsDestroyedOnceWhereverItWasMovedTo) {
  const auto token = std::make_shared<int>();
  const auto large = std::make_shared<int>();
  {
    std::vector<Task> tasks;
    for (int i = 0; i < 100; ++i) {
      tasks.emplace_back([token] {});
      tasks.emplace_back([large, rest = std::array<char, 100>{}] { (void)rest; });
    }
    EXPECT_EQ(token.use_count(), 101);
    EXPECT_EQ(large.use_count(), 101);
    tasks[0] = nullptr;
    EXPECT_EQ(token.use_count(), 100) << "what is replaced goes at once";
    tasks[0] = std::move(tasks[2]);
    EXPECT_FALSE(tasks[2]);
    EXPECT_EQ(token.use_count(), 100);
    Task& same = tasks[0];
    tasks[0] = std::move(same);
    EXPECT_TRUE(tasks[0]);
  }
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(large.use_count(), 1);
}

}  // namespace
}  // namespace zagent::common
