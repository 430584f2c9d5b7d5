#include "src/edr/host/QueueReport.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;

class QueueReportTest : public testing::Test {
 protected:
  fakes::FakeClock clock_;
  fakes::LogCapture log_;
  std::uint64_t bytes_ = 1'500;
  QueueReport report_{{{"parser queue", [this] { return bytes_; }}, {"events", [] { return 600; }}}, clock_};
};

TEST_F(QueueReportTest, SumsWhatAllHoldBeforeItRounds) {
  EXPECT_EQ(report_.Describe(), "2 KB (parser queue 1 KB, events 0 KB)");
}

TEST_F(QueueReportTest, TellsOnceAMinuteWhatTheyHoldThen) {
  report_.TellWhenDue();
  clock_.Advance(59s);
  report_.TellWhenDue();
  EXPECT_EQ(log_.Lines().size(), 0U);
  clock_.Advance(1s);
  bytes_ = 10'240;
  report_.TellWhenDue();
  report_.TellWhenDue();
  EXPECT_EQ(log_.Lines().size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Queues and caches hold 10 KB (parser queue 10 KB, events 0 KB)"));
  clock_.Advance(60s);
  report_.TellWhenDue();
  EXPECT_EQ(log_.Lines().size(), 2U);
}

TEST_F(QueueReportTest, BelowDebugNothingIsAsked) {
  int asked = 0;
  QueueReport report({{"events", [&asked] { return ++asked; }}}, clock_);
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  clock_.Advance(60s);
  report.TellWhenDue();
  EXPECT_EQ(asked, 0);
}

}  // namespace
}  // namespace zagent::edr::host
