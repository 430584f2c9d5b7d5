#include "src/audit/parser/CutEvents.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace zagent::audit::internal {
namespace {

constexpr std::int64_t kTime = 1'795'162'409'000'000'000;

class CutEventsTest : public testing::Test {
 protected:
  std::string Call(int id, std::int64_t time = kTime) { return Join(id, time, true, "call\n"); }
  std::string Path(int id, std::int64_t time = kTime) { return Join(id, time, false, "path\n"); }
  std::string Join(int id, std::int64_t time, bool has_call, const std::string& records) {
    return events_->Join({std::to_string(time) + ":" + std::to_string(id), time, has_call, records});
  }
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
  EXPECT_EQ(Join(1, kTime, false, "one\n"), "");
  EXPECT_EQ(Join(1, kTime, false, "two\n"), "");
  EXPECT_EQ(Call(1), "call\none\ntwo\n");
}

TEST_F(CutEventsTest, WhatWasJoinedIsNotKept) {
  Call(1);
  EXPECT_EQ(Path(1), "call\npath\n");
  EXPECT_EQ(Path(1), "");
  events_.reset();
  EXPECT_EQ(NotBuilt(), 0U);
}

TEST_F(CutEventsTest, WhatEndsAnEventComesLast) {
  Join(1, kTime, false, "type=EOE msg\nnode=a type=PROCTITLE msg\ntype=PATH type=EOE name\n");
  EXPECT_EQ(Call(1), "call\ntype=PATH type=EOE name\ntype=EOE msg\nnode=a type=PROCTITLE msg\n");
}

TEST_F(CutEventsTest, APartAboveTheBoundIsNotKept) {
  Join(1, kTime, true, std::string(CutEvents::kMostBytes + 1, 'x'));
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_EQ(Path(1), "");
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
  for (int id = 1; id <= static_cast<int>(CutEvents::kMostParts); ++id) Call(id);
  EXPECT_EQ(NotBuilt(), 0U);
  Path(1'000'000);
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_EQ(Path(1), "");
  EXPECT_EQ(NotBuilt(), 2U);
  EXPECT_EQ(Path(3), "call\npath\n");
}

TEST_F(CutEventsTest, SoItIsAtTheBoundOfBytes) {
  Join(1, kTime, true, std::string(CutEvents::kMostBytes / 2, 'x'));
  Join(2, kTime, true, std::string(CutEvents::kMostBytes / 2, 'x'));
  EXPECT_EQ(NotBuilt(), 0U);
  Join(3, kTime, false, "x");
  EXPECT_EQ(NotBuilt(), 1U);
  EXPECT_EQ(Path(1), "");
  EXPECT_NE(Path(2), "");
}

TEST_F(CutEventsTest, WhatWasJoinedCountsNoMore) {
  for (int id = 1; id <= 8; ++id) {
    Join(id, kTime, true, std::string(CutEvents::kMostBytes / 4, 'x'));
    EXPECT_NE(Path(id), "") << id;
  }
  EXPECT_EQ(NotBuilt(), 0U);
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
  events_->GiveUp();
  EXPECT_EQ(NotBuilt(), 2U);
  events_.reset();
  EXPECT_EQ(NotBuilt(), 2U);
}

}  // namespace
}  // namespace zagent::audit::internal
