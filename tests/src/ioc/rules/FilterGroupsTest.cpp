#include "src/ioc/rules/FilterGroups.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::ioc::internal {
namespace {

using edr::MatchResult;

enum class Answer { Yes, No, CannotTell };

class Scripted final : public edr::FilterCriteria {
 public:
  explicit Scripted(Answer answer) : FilterCriteria(Group::Inclusion), answer_(answer) {}
  [[nodiscard]] bool Match(const edr::Event&) const override {
    if (answer_ == Answer::CannotTell) throw edr::FilterCriteriaException("nobody knows");
    return answer_ == Answer::Yes;
  }

 private:
  const Answer answer_;
};

using Model = std::vector<std::vector<Answer>>;

FilterGroups GroupsOf(const Model& model) {
  FilterGroups groups;
  for (const auto& answers : model) {
    FilterGroup& group = groups.emplace_back();
    for (const Answer answer : answers) group.push_back(std::make_shared<const Scripted>(answer));
  }
  return groups;
}

MatchResult Match(const Model& inclusion, const Model& exclusion) {
  return RuleFilters{GroupsOf(inclusion), GroupsOf(exclusion)}.Match(fakes::FakeEvent());
}

// What filters mean: refused by any exclusion group without a "no"; else taken when there is no inclusion group, or one
// without a "no".
bool IsTaken(const Model& inclusion, const Model& exclusion) {
  const auto holds = [](const std::vector<Answer>& group) {
    return std::find(group.begin(), group.end(), Answer::No) == group.end();
  };
  if (std::any_of(exclusion.begin(), exclusion.end(), holds)) return false;
  return inclusion.empty() || std::any_of(inclusion.begin(), inclusion.end(), holds);
}

TEST(FilterGroupsTest, WithoutFiltersEverythingIsTaken) {
  EXPECT_EQ(Match({}, {}), MatchResult::Matched);
}

TEST(FilterGroupsTest, AnEmptyExclusionGroupRefusesEverything) {
  EXPECT_EQ(Match({}, {{}}), MatchResult::RefusedByFilter);
  EXPECT_EQ(Match({{Answer::No}, {}}, {}), MatchResult::Matched);
}

TEST(FilterGroupsTest, WhatACriterionCannotTellIsLoggedAndPasses) {
  const fakes::LogCapture log;
  fakes::FakeEvent event;
  event.id = 77;
  EXPECT_TRUE(Holds(GroupsOf({{Answer::CannotTell, Answer::Yes}})[0], event));
  EXPECT_FALSE(Holds(GroupsOf({{Answer::CannotTell, Answer::No}})[0], event)) << "the group goes on behind it";
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Event ID 77: nobody knows"));
}

TEST(FilterGroupsTest, EachStepIsToldInTheLog) {
  {
    const fakes::LogCapture log;
    EXPECT_EQ(Match({{Answer::Yes}}, {{Answer::No}}), MatchResult::Matched);
    EXPECT_TRUE(log.Has("Matching exclusion criterias"));
    EXPECT_TRUE(log.Has("Exclusion filters not matched"));
    EXPECT_TRUE(log.Has("Matching inclusion criterias"));
    EXPECT_TRUE(log.Has("Inclusion criteria matched"));
  }
  const fakes::LogCapture log;
  EXPECT_EQ(Match({{Answer::Yes}}, {{Answer::Yes}}), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has("Exclusion criteria matched"));
  EXPECT_FALSE(log.Has("Matching inclusion criterias"));
}

TEST(FilterGroupsTest, AgreesWithTheirMeaningForAllKindsOfGroups) {
  std::mt19937 dice(20240501);
  const auto roll = [&] {
    Model model(dice() % 4);
    for (auto& group : model) {
      group.resize(dice() % 4);
      for (Answer& answer : group) answer = static_cast<Answer>(dice() % 3);
    }
    return model;
  };
  int taken = 0;
  for (int i = 0; i < 20'000; ++i) {
    const Model inclusion = roll();
    const Model exclusion = roll();
    const bool expected = IsTaken(inclusion, exclusion);
    ASSERT_EQ(Match(inclusion, exclusion) == MatchResult::Matched, expected) << "at " << i;
    taken += expected ? 1 : 0;
  }
  EXPECT_GT(taken, 2'000);
  EXPECT_LT(taken, 18'000);
}

}  // namespace
}  // namespace zagent::ioc::internal
