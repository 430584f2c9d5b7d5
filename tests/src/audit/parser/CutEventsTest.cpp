#include "src/audit/parser/CutEvents.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace zagent::audit::internal {
namespace {

constexpr std::int64_t kTime = 1'795'162'409'000'000'000;

class CutEventsTest : public testing::Test {
 protected:
  std::string Call(std::uint32_t id, std::int64_t time = kTime) { return events_->Join({id, time, true, "call\n"}); }
  std::string Path(std::uint32_t id, std::int64_t time = kTime) { return events_->Join({id, time, false, "path\n"}); }
  std::uint64_t NotBuilt() { return counters_.Get(IntakeCounters::Reason::NotBuilt); }

  IntakeCounters counters_;
  std::optional<CutEvents> events_{std::in_place, counters_};
};

TEST_F(CutEventsTest, TheCallComesFirstWhateverCameFirst) {
  EXPECT_EQ(Call(1), "");
  EXPECT_EQ(Path(1), "call\npath\n");
  EXPECT_EQ(Path(2), "");
  EXPECT_EQ(Call(2), "call\npath\n");
}

TEST_F(CutEventsTest, PartsWithoutACallWaitForItTogether) {
  EXPECT_EQ(events_->Join({1, kTime, false, "one\n"}), "");
  EXPECT_EQ(events_->Join({1, kTime, false, "two\n"}), "");
  EXPECT_EQ(Call(1), "call\none\ntwo\n");
}

TEST_F(CutEventsTest, WhatWasJoinedIsNotKept) {
  Call(1);
  EXPECT_EQ(Path(1), "call\npath\n");
  EXPECT_EQ(Path(1), "");
  events_.reset();
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(CutEventsTest, AnEventThatIsAlwaysTakenApartIsGivenUpAndCounted) {
  Call(1);
  EXPECT_EQ(Path(1), "call\npath\n");
  Call(1);
  EXPECT_EQ(Path(1), "");
  EXPECT_EQ(NotBuilt(), 1U);
  Call(1);
  Path(1);
  EXPECT_EQ(NotBuilt(), 2U) << "nothing was kept of it";
}

TEST_F(CutEventsTest, OneThatComesAgainWithMoreIsJoinedAgain) {
  Call(1);
  EXPECT_EQ(Path(1), "call\npath\n");
  events_->Join({1, kTime, true, "call\npath\n"});
  EXPECT_EQ(Path(1), "call\npath\npath\n");
}

TEST_F(CutEventsTest, PartsOfOtherEventsStayWhereTheyAre) {
  Call(1);
  Call(2);
  EXPECT_EQ(Path(3), "");
  EXPECT_EQ(Path(1, kTime + 1), "");
  EXPECT_EQ(Path(2), "call\npath\n");
  EXPECT_EQ(Path(1), "call\npath\n");
}

TEST_F(CutEventsTest, TheOldestCallIsGivenUpAtTheBoundAndCounted) {
  for (std::uint32_t id = 1; id <= CutEvents::kMostParts; ++id) Call(id);
  EXPECT_EQ(NotBuilt(), 0U);
  Path(1'000'000);
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_EQ(Path(1), "");
  EXPECT_EQ(NotBuilt(), 2U);
  EXPECT_EQ(Path(3), "call\npath\n");
}

TEST_F(CutEventsTest, SoItIsAtTheBoundOfBytes) {
  events_->Join({1, kTime, true, std::string(CutEvents::kMostBytes / 2, 'x')});
  events_->Join({2, kTime, true, std::string(CutEvents::kMostBytes / 2, 'x')});
  EXPECT_EQ(NotBuilt(), 0U);
  events_->Join({3, kTime, false, "x"});
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_EQ(Path(1), "");
  EXPECT_NE(Path(2), "");
}

TEST_F(CutEventsTest, AndWhenNewerEventsAreAMinuteAhead) {
  Call(1);
  Call(2, kTime + CutEvents::kKeptTime);
  EXPECT_EQ(NotBuilt(), 0U);
  Call(3, kTime + CutEvents::kKeptTime + 1'000'000'000);
  EXPECT_EQ(NotBuilt(), 1U);
}

TEST_F(CutEventsTest, WhatStillWaitsAtTheEndIsCountedOnce) {
  Call(1);
  Call(2);
  Path(3);
  events_.reset();
  EXPECT_EQ(NotBuilt(), 2U);
}

}  // namespace
}  // namespace zagent::audit::internal
