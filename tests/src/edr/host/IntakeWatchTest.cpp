#include "src/edr/host/IntakeWatch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using Step = IntakeWatch::Step;

class IntakeWatchTest : public testing::Test {
 protected:
  // The intake dies, and is started anew when its time has come.
  void FailAndRestart() {
    watch_.OnEnded("no /proc");
    clock_.Advance(5s);
    ASSERT_EQ(watch_.NextStep(), Step::Restart);
    watch_.BeginRun();
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  IntakeWatch watch_{true, clock_};
};

TEST_F(IntakeWatchTest, ARunningIntakeNeedsNothing) {
  clock_.Advance(1h);
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(IntakeWatchTest, RestartsFiveSecondsAfterTheEndWithOneErrorLine) {
  watch_.OnEnded("Audit Parser Thread: no /proc");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "The audit intake has ended: Audit Parser Thread: no /proc"));
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  clock_.Advance(4999ms);
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  clock_.Advance(1ms);
  EXPECT_EQ(watch_.NextStep(), Step::Restart);
  watch_.BeginRun();
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  EXPECT_EQ(log_.Count("The audit intake has ended"), 1);
}

TEST_F(IntakeWatchTest, HasEndedUntilTheNextRunBegins) {
  EXPECT_FALSE(watch_.HasEnded());
  watch_.OnEnded("no /proc");
  clock_.Advance(5s);
  EXPECT_EQ(watch_.NextStep(), Step::Restart);
  EXPECT_TRUE(watch_.HasEnded());
  watch_.BeginRun();
  EXPECT_FALSE(watch_.HasEnded());
}

TEST_F(IntakeWatchTest, TellsWhatItHasDiedOfUntilTheNextRunBegins) {
  EXPECT_EQ(watch_.EndCause(), "");
  watch_.OnEnded("no /proc");
  watch_.OnEnded("what died with it");
  EXPECT_EQ(watch_.EndCause(), "no /proc");
  watch_.BeginRun();
  EXPECT_EQ(watch_.EndCause(), "");
  watch_.OnEnded("no kernel");
  EXPECT_EQ(watch_.EndCause(), "no kernel");
}

TEST_F(IntakeWatchTest, AWallClockThatIsSetBackDoesNotDelayTheRestart) {
  watch_.OnEnded("no /proc");
  clock_.SetWall(-1h);
  clock_.Advance(5s);
  EXPECT_EQ(watch_.NextStep(), Step::Restart);
}

TEST_F(IntakeWatchTest, WhatDiesTogetherIsOneFailure) {
  watch_.OnEnded("first");
  watch_.OnEnded("second");
  watch_.OnEnded("third");
  EXPECT_EQ(log_.Count("The audit intake has ended"), 1);
  clock_.Advance(5s);
  EXPECT_EQ(watch_.NextStep(), Step::Restart);
  watch_.OnEnded("while the rest of it is stopped");
  watch_.BeginRun();
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  clock_.Advance(1h);
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
}

TEST_F(IntakeWatchTest, TheThirdFailureWithinTenMinutesIsTheLast) {
  FailAndRestart();
  clock_.Advance(4min);
  FailAndRestart();
  clock_.Advance(5min);
  watch_.OnEnded("no /proc");
  EXPECT_EQ(watch_.NextStep(), Step::GiveUp) << "at once";
  EXPECT_EQ(log_.Count("The audit intake has ended"), 3);
}

TEST_F(IntakeWatchTest, AFailureOfTenMinutesAgoCountsNoMore) {
  FailAndRestart();
  clock_.Advance(4min);
  FailAndRestart();
  clock_.Advance(6min - 10s);
  watch_.OnEnded("no /proc");
  EXPECT_EQ(watch_.NextStep(), Step::Nothing);
  clock_.Advance(5s);
  EXPECT_EQ(watch_.NextStep(), Step::Restart);
  watch_.BeginRun();
  watch_.OnEnded("no /proc");
  EXPECT_EQ(watch_.NextStep(), Step::GiveUp) << "three within the last six minutes";
}

TEST_F(IntakeWatchTest, AStartThatFailsIsAFailureToo) {
  watch_.OnEnded("IOChannel: Unknown error");
  clock_.Advance(5s);
  for (int start = 0; start < 2; ++start) {
    ASSERT_EQ(watch_.NextStep(), Step::Restart);
    watch_.BeginRun();
    watch_.OnEnded("IOChannel: Access denied");
    clock_.Advance(5s);
  }
  EXPECT_EQ(watch_.NextStep(), Step::GiveUp);
}

TEST_F(IntakeWatchTest, WithoutRestartsTheDaemonIsToldOnceAndGoesOn) {
  IntakeWatch watch(false, clock_);
  watch.OnEnded("no /proc");
  watch.OnEnded("no /proc");
  EXPECT_EQ(log_.Count("The audit intake has ended: no /proc"), 1);
  clock_.Advance(1h);
  EXPECT_EQ(watch.NextStep(), Step::Nothing);
}

}  // namespace
}  // namespace zagent::edr::host
