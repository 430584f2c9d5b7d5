#include "src/edr/host/HealthIntake.h"

#include <gmock/gmock.h>

#include <chrono>
#include <optional>
#include <string>

#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeHealthReporter.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using Reason = audit::IntakeCounters::Reason;

class HealthIntakeTest : public testing::Test {
 protected:
  HealthIntakeTest() {
    kernel_.lost = 100;  // before the program began
    intake_.emplace(HealthIntake::Sources{.counters = counters_,
                                          .refused_documents = [this] { return refused_; },
                                          .removed_files = [this] { return removed_files_; },
                                          .removed_bytes = [this] { return removed_bytes_; },
                                          .dropped_events = [this] { return dropped_; }},
                    kernel_, reporter_, clock_);
    intake_->TellWhenDue();
  }

  void PassTime(std::chrono::nanoseconds time) {
    clock_.Advance(time);
    intake_->TellWhenDue();
  }
  [[nodiscard]] std::vector<std::string> Lines() const { return reporter_.Lines(); }

  fakes::FakeClock clock_;  // begins at 2023-11-14T22:13:20Z
  fakes::FakeAuditNetlink kernel_;
  audit::IntakeCounters counters_;
  std::uint64_t refused_ = 0;
  std::uint64_t removed_files_ = 0;
  std::uint64_t removed_bytes_ = 0;
  std::uint64_t dropped_ = 0;
  fakes::FakeHealthReporter reporter_;
  std::optional<HealthIntake> intake_;
};

constexpr const char* kNothingLost =
    "4004 EDR 1 bytesAtStop=0 componentDropped=0 eventsDropped=0 fileReplaced=0 kernelLost=0 leftAtStop=0 notBuilt=0 "
    "queueDropped=0 "
    "since=2023-11-14T22:13:20Z spoolRefused=0 spoolRemovedBytes=0 spoolRemovedFiles=0 unplaced=0 unsupportedCall=0";

TEST_F(HealthIntakeTest, AtTheStartAllIsGoodAndStaysSoWithoutAnotherWord) {
  EXPECT_EQ(Lines(), std::vector<std::string>{kNothingLost});
  for (int minute = 0; minute < 20; ++minute) PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(1));
}

TEST_F(HealthIntakeTest, EachKindOfLossHasItsField) {
  counters_.Add(Reason::BytesAtBound, 1);
  counters_.Add(Reason::BytesAtStop, 2);
  counters_.Add(Reason::NotBuilt, 3);
  counters_.Add(Reason::UnsupportedCall, 4);
  counters_.Add(Reason::Unplaced, 5);
  counters_.Add(Reason::LeftAtStop, 6);
  counters_.Add(Reason::FileReplaced, 7);
  counters_.Add(Reason::NotProcessed, 8);
  refused_ = 9;
  dropped_ = 10;
  removed_files_ = 11;
  removed_bytes_ = 12;
  kernel_.lost = 110;
  PassTime(1min);
  EXPECT_EQ(
      Lines().back(),
      "4004 EDR 0 bytesAtStop=2 componentDropped=10 eventsDropped=8 fileReplaced=7 kernelLost=10 leftAtStop=6 "
      "notBuilt=3 "
      "queueDropped=1 since=2023-11-14T22:13:20Z spoolRefused=9 spoolRemovedBytes=12 spoolRemovedFiles=11 unplaced=5 "
      "unsupportedCall=4");
}

TEST_F(HealthIntakeTest, EachReasonThatIsNotByDesignIsBadByItself) {
  for (const Reason reason :
       {Reason::BytesAtBound, Reason::BytesAtStop, Reason::Unplaced, Reason::LeftAtStop, Reason::NotProcessed}) {
    counters_.Add(reason);
    PassTime(1min);
    EXPECT_EQ(reporter_.Statuses().back().state, health::State::Bad) << static_cast<int>(reason);
    for (int minute = 0; minute < 5; ++minute) PassTime(1min);
    ASSERT_EQ(reporter_.Statuses().back().state, health::State::Good);
  }
}

TEST_F(HealthIntakeTest, WhatAComponentDropsIsALoss) {
  dropped_ = 3;
  PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(2));
  EXPECT_THAT(Lines()[1], HasSubstr("4004 EDR 0 bytesAtStop=0 componentDropped=3 "));
  dropped_ = 5;
  for (int minute = 0; minute < 5; ++minute) PassTime(1min);
  EXPECT_THAT(Lines()[2], HasSubstr(" componentDropped=2 "));
}

TEST_F(HealthIntakeTest, AFileThatASpoolRemovesIsALoss) {
  removed_files_ = 2;
  removed_bytes_ = 300;
  PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(2));
  EXPECT_THAT(Lines()[1], HasSubstr("4004 EDR 0 "));
  removed_files_ = 3;
  removed_bytes_ = 400;
  for (int minute = 0; minute < 5; ++minute) PassTime(1min);
  EXPECT_THAT(Lines()[2], HasSubstr(" spoolRemovedBytes=100 spoolRemovedFiles=1 "));
}

TEST_F(HealthIntakeTest, CountsFromItsMakingOnHoweverLateTheFirstLookIs) {
  const auto none = [] { return 0; };
  HealthIntake busy({.counters = counters_,
                     .refused_documents = none,
                     .removed_files = none,
                     .removed_bytes = none,
                     .dropped_events = none},
                    kernel_, reporter_, clock_);
  kernel_.lost += 7;  // while rules were installed
  clock_.Advance(3min);
  busy.TellWhenDue();
  clock_.Advance(1min);
  busy.TellWhenDue();
  EXPECT_THAT(Lines().back(), HasSubstr(" kernelLost=7 "));
}

TEST_F(HealthIntakeTest, LooksOnceAMinute) {
  refused_ = 1;
  PassTime(59s);
  EXPECT_THAT(Lines(), SizeIs(1));
  PassTime(1s);
  EXPECT_THAT(Lines(), SizeIs(2));
  EXPECT_EQ(kernel_.OpenCount(), 2);
}

TEST_F(HealthIntakeTest, WhatIsDroppedByDesignMakesNothingBad) {
  counters_.Add(Reason::NotBuilt);
  counters_.Add(Reason::UnsupportedCall);
  counters_.Add(Reason::FileReplaced);
  PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(1));
}

TEST_F(HealthIntakeTest, TellsLossesThatGoOnEveryFiveMinutesEachCountOnce) {
  for (int minute = 0; minute < 11; ++minute) {
    ++kernel_.lost;
    PassTime(1min);
  }
  ASSERT_THAT(Lines(), SizeIs(4));  // good, bad in the first minute, then in the sixth and the eleventh
  EXPECT_THAT(Lines()[1],
              HasSubstr(" 0 bytesAtStop=0 componentDropped=0 eventsDropped=0 fileReplaced=0 kernelLost=1 "));
  EXPECT_THAT(Lines()[2], HasSubstr(" kernelLost=5 "));
  EXPECT_THAT(Lines()[2], HasSubstr(" since=2023-11-14T22:14:20Z "));
  EXPECT_THAT(Lines()[3], HasSubstr(" kernelLost=5 ")) << "as much again is another status";
  EXPECT_NE(reporter_.Statuses()[3].fields, reporter_.Statuses()[2].fields);
}

TEST_F(HealthIntakeTest, IsGoodAgainAfterFiveMinutesWithoutLoss) {
  refused_ = 1;
  PassTime(1min);
  for (int minute = 0; minute < 4; ++minute) PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(2));
  PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 1 "));
  EXPECT_THAT(Lines()[2], HasSubstr(" spoolRefused=0 "));
}

TEST_F(HealthIntakeTest, AKernelWhoseCountWasSetToZeroHasLostWhatItCountsSince) {
  kernel_.lost = 3;
  PassTime(1min);
  EXPECT_THAT(Lines().back(), HasSubstr(" kernelLost=3 "));
}

TEST_F(HealthIntakeTest, AKernelThatDoesNotAnswerHoldsNothingUp) {
  kernel_.answers_nothing = true;
  refused_ = 1;
  PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(1)) << "it has a moment for its answer";
  PassTime(5s);
  ASSERT_THAT(Lines(), SizeIs(2));
  EXPECT_THAT(Lines()[1], HasSubstr(" spoolRefused=1 "));
  EXPECT_EQ(kernel_.Waits(), 0);
  kernel_.answers_nothing = false;
  kernel_.lost = 102;
  for (int minute = 0; minute < 6; ++minute) PassTime(1min);
  EXPECT_THAT(Lines()[2], HasSubstr(" kernelLost=2 ")) << "and what it did not tell then is told later";
}

TEST_F(HealthIntakeTest, SilenceIsBadWhileItLastsWhateverTheCounts) {
  intake_->SetSilence("nobody speaks");
  ASSERT_THAT(Lines(), SizeIs(2));
  EXPECT_THAT(Lines()[1], HasSubstr("4004 EDR 0 auditSilent=nobody speaks "));
  for (int minute = 0; minute < 10; ++minute) PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(2)) << "once is enough";
  intake_->SetSilence("");
  for (int minute = 0; minute < 6; ++minute) PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 1 "));
  EXPECT_THAT(Lines()[2], Not(HasSubstr("auditSilent")));
}

TEST_F(HealthIntakeTest, ASilenceIsToldThoughTheIntakeIsBadAlready) {
  refused_ = 1;
  PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(2));
  intake_->SetSilence("nobody speaks");
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 0 auditSilent=nobody speaks "));
  EXPECT_THAT(Lines()[2], HasSubstr(" spoolRefused=0 ")) << "the loss was told";
}

TEST_F(HealthIntakeTest, AnotherCauseOfASilenceIsAnotherStatus) {
  intake_->SetSilence("nobody speaks");
  intake_->SetSilence("audit is switched off");
  intake_->SetSilence("audit is switched off");
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 0 auditSilent=audit is switched off "));
}

TEST_F(HealthIntakeTest, TheNextSilenceOfTheSameCauseIsToldAgain) {
  intake_->SetSilence("nobody speaks");
  intake_->SetSilence("");
  PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(2)) << "it is not good yet";
  intake_->SetSilence("nobody speaks");
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 0 auditSilent=nobody speaks "));
}

TEST_F(HealthIntakeTest, AnIntakeThatHasEndedIsBadUntilItBeginsAnewWhateverTheCounts) {
  intake_->SetEnd("audit channel: no kernel");
  ASSERT_THAT(Lines(), SizeIs(2));
  EXPECT_THAT(Lines()[1], HasSubstr("4004 EDR 0 "));
  EXPECT_THAT(Lines()[1], HasSubstr(" intakeEnded=audit channel: no kernel "));
  for (int minute = 0; minute < 20; ++minute) {
    intake_->SetEnd("audit channel: no kernel");  // as the host says every second
    PassTime(1min);
  }
  EXPECT_THAT(Lines(), SizeIs(2)) << "once is enough";
  intake_->SetEnd("");
  for (int minute = 0; minute < 5; ++minute) PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 1 "));
  EXPECT_THAT(Lines()[2], Not(HasSubstr("intakeEnded")));
}

TEST_F(HealthIntakeTest, AnEndIsToldThoughTheIntakeIsBadAlreadyAndAgainWhenItEndsAgain) {
  refused_ = 1;
  PassTime(1min);
  ASSERT_THAT(Lines(), SizeIs(2));
  intake_->SetEnd("no kernel");
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr(" intakeEnded=no kernel "));
  EXPECT_THAT(Lines()[2], HasSubstr(" spoolRefused=0 ")) << "the loss was told";
  intake_->SetEnd("");
  PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(3)) << "it is not good yet";
  intake_->SetEnd("no kernel");
  EXPECT_THAT(Lines(), SizeIs(4));
}

TEST_F(HealthIntakeTest, ASilenceAndAnEndAreToldBesideEachOther) {
  intake_->SetSilence("nobody speaks");
  intake_->SetEnd("no kernel");
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr("4004 EDR 0 auditSilent=nobody speaks "));
  EXPECT_THAT(Lines()[2], HasSubstr(" intakeEnded=no kernel "));
  intake_->SetEnd("");
  for (int minute = 0; minute < 10; ++minute) PassTime(1min);
  EXPECT_THAT(Lines(), SizeIs(3)) << "the silence lasts";
}

TEST_F(HealthIntakeTest, WhatIsStillToBeToldIsToldAtTheEnd) {
  refused_ = 1;
  PassTime(1min);
  refused_ = 3;
  intake_->TellAtEnd();
  ASSERT_THAT(Lines(), SizeIs(3));
  EXPECT_THAT(Lines()[2], HasSubstr(" spoolRefused=2 "));
  intake_->TellAtEnd();
  EXPECT_THAT(Lines(), SizeIs(3));
}

}  // namespace
}  // namespace zagent::edr::host
