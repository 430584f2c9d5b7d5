#include "src/audit/engine/WatchedPathSchedule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "common/src/tasks/Scheduler.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;

class WatchedPathScheduleTest : public ::testing::Test {
 protected:
  WatchedPathScheduleTest() {
    scheduler_.Start();
    scheduler_.RegisterSchedule(schedule_);
  }
  ~WatchedPathScheduleTest() override { scheduler_.Stop(); }

  // There are paths from now on, and the schedule is told so.
  void PathsCome() {
    has_paths_ = true;
    schedule_->RunNow();
  }
  // Both sleep: the Scheduler for a day, the schedule until its next look.
  void ASecondPasses() {
    clock_.AwaitWaiters(2);
    clock_.Advance(1s);
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::atomic<bool> has_paths_{false};
  std::atomic<bool> fails_{false};
  fakes::Mailbox<bool> looks_;
  common::Scheduler scheduler_{clock_};
  const std::shared_ptr<WatchedPathSchedule> schedule_ =
      std::make_shared<WatchedPathSchedule>([this] { return has_paths_.load(); },
                                            [this] {
                                              looks_.Put(true);
                                              if (fails_) throw std::runtime_error("no kernel");
                                            },
                                            clock_);
};

TEST_F(WatchedPathScheduleTest, WaitsToBeToldWhileThereIsNothingToLookFor) {
  EXPECT_EQ(schedule_->NextRunTime(), common::util::ToNanoseconds(clock_.Now() + 24h));
  has_paths_ = true;
  EXPECT_EQ(schedule_->NextRunTime(), common::util::ToNanoseconds(clock_.Now()));
  EXPECT_TRUE(looks_.IsEmpty());
}

TEST_F(WatchedPathScheduleTest, LooksOnceASecondFromTheTimeThatItIsTold) {
  PathsCome();
  looks_.Take();
  for (int i = 0; i < 3; ++i) {
    ASecondPasses();
    looks_.Take();
  }
  clock_.AwaitWaiters(2);
  clock_.Advance(999ms);
  clock_.AwaitWaiters(2);
  EXPECT_TRUE(looks_.IsEmpty());
}

TEST_F(WatchedPathScheduleTest, ASecondOfItsOwnIsOneThatPassesWhateverTheSystemClockSays) {
  PathsCome();
  looks_.Take();
  clock_.AwaitWaiters(2);
  clock_.SetWall(-24h);
  ASecondPasses();
  looks_.Take();
}

TEST_F(WatchedPathScheduleTest, EndsWithTheLastPathAndBeginsAnewWithTheNextOne) {
  PathsCome();
  looks_.Take();
  has_paths_ = false;
  ASecondPasses();
  while (schedule_->IsRunning()) std::this_thread::yield();
  EXPECT_TRUE(looks_.IsEmpty());
  PathsCome();
  looks_.Take();
}

TEST_F(WatchedPathScheduleTest, ALookThatFailsIsNotTheLastOneNorFollowedByOneAtOnce) {
  fails_ = true;
  PathsCome();
  looks_.Take();
  clock_.AwaitWaiters(2);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to look at the paths of rules: no kernel"));
  EXPECT_TRUE(looks_.IsEmpty());
  ASecondPasses();
  looks_.Take();
}

TEST_F(WatchedPathScheduleTest, ACancelDoesNotWaitForTheNextLook) {
  PathsCome();
  looks_.Take();
  clock_.AwaitWaiters(2);
  scheduler_.Stop();
  EXPECT_FALSE(schedule_->IsRunning());
}

}  // namespace
}  // namespace zagent::audit
