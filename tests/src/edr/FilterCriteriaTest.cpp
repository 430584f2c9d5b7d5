#include "src/edr/FilterCriteria.h"

#include <gtest/gtest.h>

#include "src/edr/TimeCriteria.h"
#include "src/edr/UserCriteria.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/VirtualOrder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::edr {
namespace {

using common::util::JsonPlace;
using Group = FilterCriteria::Group;

// Whether any of its patterns matches the path of the event's file.
class AnyPath final : public FilterCriteria {
 public:
  explicit AnyPath(std::vector<PathGlob> patterns) : FilterCriteria(Group::Inclusion, std::move(patterns)) {}
  [[nodiscard]] bool Match(const Event& event) const override { return MatchesAny(event.GetFile()->GetPath()); }
};

std::vector<PathGlob> Parse(const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  return FilterCriteria::ParsePatterns(document);
}

fakes::FakeEvent FileEvent(const std::string& path) {
  return {EventType::Write, "Write", path};
}

fakes::FakeEvent EventAt(int hour, int minute, int second) {
  fakes::FakeEvent event = FileEvent("/x");
  constexpr std::int64_t kMidnight = 19'000LL * 86'400;
  event.timestamp = (kMidnight + hour * 3600 + minute * 60 + second) * 1'000'000'000;
  return event;
}

TEST(FilterCriteriaTest, ABareNameMatchesInAnyFolder) {
  EXPECT_EQ(Parse(R"(["bash"])")[0].GetPattern(), "*/bash");
  EXPECT_TRUE(AnyPath(Parse(R"(["bash"])")).Match(FileEvent("/usr/bin/bash")));
  EXPECT_FALSE(AnyPath(Parse(R"(["bash"])")).Match(FileEvent("/usr/bin/rbash")));
}

TEST(FilterCriteriaTest, APatternThatBeginsAtTheTopOrWithAStarStaysAsItIs) {
  EXPECT_EQ(Parse(R"(["/usr/bin/bash"])")[0].GetPattern(), "/usr/bin/bash");
  EXPECT_EQ(Parse(R"(["*sh"])")[0].GetPattern(), "*sh");
  EXPECT_FALSE(AnyPath(Parse(R"(["/bin/bash"])")).Match(FileEvent("/usr/bin/bash")));
  EXPECT_TRUE(AnyPath(Parse(R"(["/bin/x","*sh"])")).Match(FileEvent("/usr/bin/bash")));
}

TEST(FilterCriteriaTest, CaseCounts) {
  EXPECT_FALSE(AnyPath(Parse(R"(["BASH"])")).Match(FileEvent("/usr/bin/bash")));
}

TEST(FilterCriteriaTest, PatternsAreTextsThatAreNotEmpty) {
  constexpr const char* kInvalid = "Invalid value for filter patterns";
  for (const char* text : {"7", "null", "{}", R"("bash")", R"([7])", R"(["bash",null])"}) {
    EXPECT_EQ(fakes::WhatOf([&] { Parse(text); }), kInvalid) << text;
  }
  EXPECT_EQ(fakes::WhatOf([] { Parse(R"(["bash",""])"); }), "Filter pattern cannot be empty");
  EXPECT_TRUE(Parse("[]").empty());
}

TEST(FilterCriteriaTest, AMistakeHasItsPlace) {
  const auto place = [](const std::string& text) {
    try {
      Parse(text);
    } catch (const FilterCriteriaException& error) {
      return error.Place();
    }
    return JsonPlace{"no mistake"};
  };
  EXPECT_EQ(place("7"), JsonPlace{});
  EXPECT_EQ(place(R"(["a",7])"), JsonPlace{"1"});
  EXPECT_EQ(place(R"([""])"), JsonPlace{"0"});
}

TEST(FilterCriteriaTest, EachComparisonIsToldInTheLog) {
  const fakes::LogCapture log;
  EXPECT_TRUE(AnyPath(Parse(R"(["/x","bash"])")).Match(FileEvent("/bin/bash")));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Pattern: /x not matched with value: /bin/bash"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Pattern: */bash matched with value: /bin/bash"));
}

TEST(FilterCriteriaTest, PatternsComeBeforeTheEventInTheTableOfOperations) {
  EXPECT_EQ(fakes::VirtualSlot(&FilterCriteria::MatchPattern), 0U);
  EXPECT_EQ(fakes::VirtualSlot(&FilterCriteria::Match), 3U);
}

TEST(UserCriteriaTest, TheActorIsOneOfTheNames) {
  const fakes::LogCapture log;
  const UserCriteria users(Group::Inclusion, {"alice", "bob"});
  fakes::FakeEvent event = FileEvent("/x");
  event.user_name = "bob";
  EXPECT_TRUE(users.Match(event));
  event.user_name = "mallory";
  event.login_name = "bob";
  EXPECT_FALSE(users.Match(event));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Setting Actor Users Filters"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Matching Actor User Criteria"));
}

TEST(UserCriteriaTest, WithoutNamesEverybodyMatches) {
  EXPECT_TRUE(UserCriteria(Group::Inclusion, {}).Match(FileEvent("/x")));
  EXPECT_TRUE(UserCriteria(Group::Exclusion, {}).Match(FileEvent("/x")));
}

TEST(TimeCriteriaTest, BothEndsBelongToTheSpan) {
  const fakes::LogCapture log;
  const TimeCriteria span(Group::Inclusion, "08:30:00", "17:00:05");
  EXPECT_FALSE(span.Match(EventAt(8, 29, 59)));
  EXPECT_TRUE(span.Match(EventAt(8, 30, 0)));
  EXPECT_TRUE(span.Match(EventAt(12, 0, 0)));
  EXPECT_TRUE(span.Match(EventAt(17, 0, 5)));
  EXPECT_FALSE(span.Match(EventAt(17, 0, 6)));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Setting time span start and end filters"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Matching Time filters"));
}

TEST(TimeCriteriaTest, WithoutASpanAllTimesMatch) {
  EXPECT_TRUE(TimeCriteria(Group::Exclusion).Match(EventAt(3, 0, 0)));
}

TEST(TimeCriteriaTest, AnEqualStartAndEndAreOneSecond) {
  const TimeCriteria second(Group::Inclusion, "03:00:00", "03:00:00");
  EXPECT_TRUE(second.Match(EventAt(3, 0, 0)));
  EXPECT_FALSE(second.Match(EventAt(3, 0, 1)));
}

TEST(TimeCriteriaTest, ABadSpanIsRefused) {
  const fakes::LogCapture log;
  const auto what = [](const char* start, const char* end) {
    return fakes::WhatOf([&] { const TimeCriteria span(Group::Inclusion, start, end); });
  };
  EXPECT_EQ(what("", "10:00:00"), "Empty argument passed");
  EXPECT_EQ(what("10:00:00", ""), "Empty argument passed");
  EXPECT_FALSE(log.Has("Failed to convert"));
  EXPECT_EQ(what("25:00:00", "10:00:00"), "Invalid start time");
  EXPECT_EQ(what("10:00:00", "11:00:00 "), "Invalid end time");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Failed to convert time string to time tm struct"));
  EXPECT_EQ(what("11:00:01", "11:00:00"), "Start time cannot be later than End time");
}

}  // namespace
}  // namespace zagent::edr
