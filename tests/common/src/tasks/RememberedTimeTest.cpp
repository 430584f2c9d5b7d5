#include "common/src/tasks/RememberedTime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/SleepingCall.h"

namespace zagent::common {
namespace {

using std::chrono::seconds;

constexpr seconds kDay{86'400};

// Lets something else happen right after it was looked at.
class InterruptedClock final : public util::Clock {
 public:
  [[nodiscard]] SystemTime Now() const override {
    const SystemTime now = clock_.Now();
    if (auto meanwhile = std::exchange(meanwhile_, nullptr)) meanwhile();
    return now;
  }
  [[nodiscard]] SteadyTime SteadyNow() const override { return clock_.SteadyNow(); }
  bool WaitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, SystemTime deadline,
                 const std::function<bool()>& predicate) override {
    return clock_.WaitUntil(condition, lock, deadline, predicate);
  }
  void Interrupt(std::function<void()> meanwhile) { meanwhile_ = std::move(meanwhile); }
  void Step(seconds step) { clock_.SetWall(step); }
  [[nodiscard]] std::int64_t In(seconds ahead) const { return util::ToNanoseconds(clock_.Now() + ahead); }

 private:
  fakes::FakeClock clock_;
  mutable std::function<void()> meanwhile_;
};

class RememberedTimeTest : public ::testing::Test {
 protected:
  InterruptedClock clock_;
  RememberedTime time_{clock_};
};

TEST_F(RememberedTimeTest, IsNothingUntilItIsSet) {
  EXPECT_FALSE(time_.Get());
  time_.Move(kDay);
  EXPECT_FALSE(time_.Get());
  time_.Set();
  EXPECT_EQ(time_.Get(), clock_.In(seconds(0)));
}

TEST_F(RememberedTimeTest, MovesWithTheClock) {
  for (const seconds step : {kDay, -kDay}) {
    time_.Set(seconds(60));
    clock_.Step(step);
    time_.Move(step);
    EXPECT_EQ(time_.Get(), clock_.In(seconds(60)));
  }
}

TEST_F(RememberedTimeTest, IsNeverFurtherAheadThanItWasSet) {
  clock_.Step(kDay);
  time_.Set(seconds(60));  // after the step, before it is told
  time_.Move(kDay);
  EXPECT_EQ(time_.Get(), clock_.In(seconds(60)));
}

TEST_F(RememberedTimeTest, WhatIsSetWhileAStepIsToldIsNotForgotten) {
  for (const seconds step : {kDay, -kDay}) {
    time_.Set(kDay);
    clock_.Step(step);
    clock_.Interrupt([this] { time_.Set(seconds(60)); });
    time_.Move(step);
    EXPECT_LE(time_.Get(), clock_.In(seconds(60))) << "the earlier time is lost";
  }
}

TEST_F(RememberedTimeTest, AStepThatIsToldWhileATimeIsSetMovesThatTime) {
  std::optional<fakes::SleepingCall<bool>> told;
  clock_.Interrupt([&] {
    clock_.Step(-kDay);
    told.emplace([this] {
      time_.Move(-kDay);
      return true;
    });
    EXPECT_TRUE(told->AwaitAsleep()) << "it does not wait for the time that is about to be set";
  });
  time_.Set(seconds(60));
  ASSERT_TRUE(told->AwaitEnd());
  EXPECT_EQ(time_.Get(), clock_.In(seconds(60)));
}

}  // namespace
}  // namespace zagent::common
