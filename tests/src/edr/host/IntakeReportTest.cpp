#include "src/edr/host/IntakeReport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using Reason = audit::IntakeCounters::Reason;

class IntakeReportTest : public testing::Test {
 protected:
  void PassTime(std::chrono::nanoseconds time) {
    clock_.Advance(time);
    report_.TellWhenDue();
  }

  const std::string prefix_ = "Intake losses since the start: ";
  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  audit::IntakeCounters counters_;
  IntakeReport report_{counters_, clock_};
};

TEST_F(IntakeReportTest, SaysNothingWhileNothingIsLost) {
  PassTime(10min);
  PassTime(10min);
  EXPECT_EQ(log_.Count(prefix_), 0);
}

TEST_F(IntakeReportTest, TellsEveryTenMinutesWhenMoreWasLost) {
  counters_.Add(Reason::NotBuilt, 2);
  PassTime(9min);
  PassTime(59s);
  EXPECT_EQ(log_.Count(prefix_), 0);
  PassTime(1s);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, prefix_ + "events that could not be built: 2")) << log_.All();
  PassTime(10min);
  EXPECT_EQ(log_.Count(prefix_), 1) << "nothing new";
  counters_.Add(Reason::BytesAtBound, 4096);
  PassTime(5min);
  EXPECT_EQ(log_.Count(prefix_), 1) << "not yet";
  PassTime(5min);
  EXPECT_TRUE(log_.Has(prefix_ + "bytes dropped at the parser's bound: 4096, events that could not be built: 2"));
  EXPECT_EQ(log_.Count(prefix_), 2);
}

TEST_F(IntakeReportTest, AWallClockThatIsSetChangesNothing) {
  counters_.Add(Reason::NotBuilt);
  clock_.SetWall(1h);
  report_.TellWhenDue();
  EXPECT_EQ(log_.Count(prefix_), 0);
  clock_.SetWall(-2h);
  PassTime(10min);
  EXPECT_EQ(log_.Count(prefix_), 1);
}

TEST_F(IntakeReportTest, TellsAtTheEndEvenThatNothingWasLost) {
  report_.TellAtEnd();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, prefix_ + "none"));
  counters_.Add(Reason::LeftAtStop, 3);
  report_.TellAtEnd();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, prefix_ + "events left at the stop: 3"));
}

}  // namespace
}  // namespace zagent::edr::host
