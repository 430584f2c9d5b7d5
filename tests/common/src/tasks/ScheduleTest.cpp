#include "common/src/tasks/Schedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeSchedule.h"
#include "tests/fakes/Gate.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::FakeClock;
using fakes::FakeSchedule;
using fakes::Gate;

class ScheduleTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::int64_t Now() const { return util::ToNanoseconds(clock_.Now()); }

  FakeClock clock_;
};

TEST_F(ScheduleTest, IsDueFromItsTimeOn) {
  FakeSchedule schedule;
  schedule.next = Now() + 1;
  EXPECT_FALSE(schedule.IsDue(clock_));
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_TRUE(schedule.IsDue(clock_));
  clock_.Advance(std::chrono::hours(1));
  EXPECT_TRUE(schedule.IsDue(clock_));
}

TEST_F(ScheduleTest, HandsOutTheTimeThatItWasAskedForOnce) {
  FakeSchedule schedule;
  schedule.next = Now() + 7;
  std::int64_t next = 0;
  EXPECT_FALSE(schedule.IsDue(clock_, &next));
  EXPECT_EQ(next, Now() + 7);
  EXPECT_EQ(schedule.asked, 1);
}

TEST_F(ScheduleTest, IsDueWhenItAnswersWithThePresentTimeOfARunningClock) {
  // Each look at this clock comes a little later than the one before.
  class TickingClock final : public util::Clock {
   public:
    [[nodiscard]] SystemTime Now() const override { return SystemTime(std::chrono::nanoseconds(++ticks_)); }
    [[nodiscard]] SteadyTime SteadyNow() const override { return {}; }
    bool WaitUntil(std::condition_variable&, std::unique_lock<std::mutex>&, SystemTime,
                   const std::function<bool()>& predicate) override {
      return predicate();
    }

   private:
    mutable std::int64_t ticks_ = 0;
  };
  TickingClock clock;
  FakeSchedule schedule;
  schedule.next_time = [&] { return util::ToNanoseconds(clock.Now()); };
  EXPECT_TRUE(schedule.IsDue(clock));
}

TEST_F(ScheduleTest, IsNeverDueWhileItRuns) {
  Gate started;
  Gate release;
  FakeSchedule schedule([&](FakeSchedule&) {
    started.Open();
    EXPECT_TRUE(release.Await());
  });
  schedule.next = Now();
  schedule.Start();
  ASSERT_TRUE(started.Await());
  EXPECT_FALSE(schedule.IsDue(clock_));
  schedule.RunNow();
  EXPECT_FALSE(schedule.IsDue(clock_));
  release.Open();
  ASSERT_TRUE(Eventually([&] { return !schedule.IsRunning(); }));
  EXPECT_TRUE(schedule.IsDue(clock_));
}

TEST_F(ScheduleTest, RunNowMakesItDueUntilTheNextStart) {
  FakeSchedule schedule;
  EXPECT_FALSE(schedule.IsDue(clock_));
  schedule.RunNow();
  EXPECT_TRUE(schedule.IsDue(clock_));
  schedule.Start();
  ASSERT_TRUE(Eventually([&] { return schedule.ended == 1 && !schedule.IsRunning(); }));
  EXPECT_FALSE(schedule.IsDue(clock_));
}

TEST_F(ScheduleTest, WakesTheSchedulerAtTheEndOfItsWorkAndOnceMoreWhenIdle) {
  std::atomic<int> while_running{0};
  std::atomic<int> while_idle{0};
  FakeSchedule schedule;
  schedule.SetOnFinished([&] { ++(schedule.IsRunning() ? while_running : while_idle); });
  schedule.Start();
  ASSERT_TRUE(Eventually([&] { return while_idle == 1; }));
  EXPECT_EQ(while_running, 1);
}

TEST_F(ScheduleTest, WakesTheSchedulerWhenItsWorkFailed) {
  Gate woken;
  FakeSchedule schedule([](FakeSchedule&) { throw std::runtime_error("failed"); });
  schedule.SetOnFinished([&] { woken.Open(); });
  schedule.Start();
  EXPECT_TRUE(woken.Await());
}

TEST_F(ScheduleTest, CallsItsCallbackWithoutALockOfItsOwn) {
  FakeSchedule schedule;
  int calls = 0;
  schedule.SetOnFinished([&] {
    ++calls;
    EXPECT_TRUE(schedule.IsDue(clock_));  // takes the lock
    schedule.ClearOnFinished();
  });
  schedule.RunNow();
  schedule.RunNow();
  EXPECT_EQ(calls, 1) << "the callback was called after it had been cleared";
}

}  // namespace
}  // namespace zagent::common
