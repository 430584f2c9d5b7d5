#include "src/audit/engine/WatchedPathSchedule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "common/src/tasks/Scheduler.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;

class WatchedPathScheduleTest : public ::testing::Test {
 protected:
  ~WatchedPathScheduleTest() override { scheduler_.Stop(); }

  fakes::FakeClock clock_;
  std::atomic<bool> is_looking_{false};
  fakes::Mailbox<bool> looks_;
  common::Scheduler scheduler_{clock_};
  const std::shared_ptr<WatchedPathSchedule> schedule_ = std::make_shared<WatchedPathSchedule>(
      [this] { return is_looking_.load(); }, [this] { looks_.Put(true); }, clock_);
};

TEST_F(WatchedPathScheduleTest, WantsToRunASecondAfterItsLastLookWhileThereIsSomethingToLookFor) {
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  EXPECT_EQ(schedule_->NextRunTime(), now + 86'400'000'000'000);
  is_looking_ = true;
  EXPECT_EQ(schedule_->NextRunTime(), now + 1'000'000'000);
  schedule_->OnClockStep(-10s);
  EXPECT_EQ(schedule_->NextRunTime(), now) << "a clock that was set back holds nothing up";
}

TEST_F(WatchedPathScheduleTest, LooksOnceASecondFromTheTimeThatItIsTold) {
  scheduler_.Start();
  scheduler_.RegisterSchedule(schedule_);
  is_looking_ = true;
  schedule_->RunNow();
  looks_.Take();
  for (int i = 0; i < 2; ++i) {
    while (schedule_->IsRunning()) std::this_thread::yield();
    clock_.AwaitWaiters(1);
    clock_.Advance(1s);
    looks_.Take();
  }
  EXPECT_TRUE(looks_.IsEmpty());
}

}  // namespace
}  // namespace zagent::audit
