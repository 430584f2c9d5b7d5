#include "common/src/tasks/CheckParentSchedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>

#include "common/src/tasks/Scheduler.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using std::chrono::hours;
using std::chrono::seconds;

class CheckParentScheduleTest : public ::testing::Test {
 protected:
  ~CheckParentScheduleTest() override { scheduler_.Stop(); }

  std::shared_ptr<CheckParentSchedule> Make(std::function<void()> on_parent_gone) {
    return std::make_shared<CheckParentSchedule>(std::move(on_parent_gone), 30, clock_, [this] {
      ++looks_;
      return parent_.load();
    });
  }
  [[nodiscard]] std::int64_t In(seconds duration) const { return util::ToNanoseconds(clock_.Now() + duration); }
  [[nodiscard]] bool SleepsFor(seconds duration) const {
    return Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + duration; });
  }

  const fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::atomic<pid_t> parent_{4711};
  std::atomic<int> looks_{0};
  std::atomic<int> gone_{0};
  Scheduler scheduler_{clock_};
};

TEST_F(CheckParentScheduleTest, LooksAtEachIntervalAndTellsWhenTheParentIsProcessOne) {
  const auto schedule = Make([this] { ++gone_; });
  scheduler_.RegisterSchedule(schedule);
  scheduler_.Start();
  ASSERT_TRUE(SleepsFor(seconds(30)));
  EXPECT_EQ(looks_, 0) << "the first look comes after an interval";
  clock_.Advance(seconds(30));
  ASSERT_TRUE(Eventually([&] { return looks_ == 1; }));
  ASSERT_TRUE(SleepsFor(seconds(30)));
  EXPECT_EQ(gone_, 0);
  parent_ = 1;
  clock_.Advance(seconds(30));
  ASSERT_TRUE(Eventually([&] { return gone_ == 1; }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "]: CheckParent failed. Terminating...")) << log_.All();
  EXPECT_TRUE(SleepsFor(seconds(30)));
}

TEST_F(CheckParentScheduleTest, IsDueNowWhenItsTimeHasPassed) {
  const auto schedule = Make([] {});
  EXPECT_EQ(schedule->NextRunTime(), In(seconds(30)));
  clock_.Advance(hours(1));
  EXPECT_EQ(schedule->NextRunTime(), In(seconds(0)));
}

TEST_F(CheckParentScheduleTest, LooksOnceADayAtLeast) {
  CheckParentSchedule schedule(nullptr, std::numeric_limits<std::uint64_t>::max(), clock_, [] { return 4711; });
  EXPECT_EQ(schedule.NextRunTime(), In(hours(24)));
}

TEST_F(CheckParentScheduleTest, NobodyNeedsToListen) {
  const auto schedule = Make(nullptr);
  parent_ = 1;
  schedule->Start();
  ASSERT_TRUE(Eventually([&] { return looks_ == 1 && !schedule->IsRunning(); }));
  EXPECT_EQ(log_.Count("AsyncTask::OnExecute"), 0) << log_.All();
}

TEST_F(CheckParentScheduleTest, AStepOfTheClockChangesNothingOfTheWait) {
  const auto schedule = Make([] {});
  for (const seconds step : {seconds(-86'400), seconds(86'400)}) {
    clock_.Advance(step);
    schedule->OnClockStep(step);
    EXPECT_EQ(schedule->NextRunTime(), In(seconds(30)));
  }
  // Told of a step that its last look came after.
  schedule->OnClockStep(seconds(86'400));
  EXPECT_EQ(schedule->NextRunTime(), In(seconds(30)));
}

}  // namespace
}  // namespace zagent::common
