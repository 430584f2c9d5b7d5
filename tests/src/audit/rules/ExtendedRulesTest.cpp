#include "src/audit/rules/ExtendedRules.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <set>
#include <string>
#include <vector>

#include "src/audit/rules/CreateRules.h"
#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::EventTypes;
using fakes::FakeRule;
using fakes::SeenRule;
using Numbers = std::set<unsigned>;

constexpr Coverage kEverything{.extended = true, .io_uring = true};
constexpr std::uint32_t kArchX86_64 = 0xC000003E;

Numbers NumbersOf(const SeenRule& rule) {
  Numbers numbers;
  for (unsigned number = 0; number < AUDIT_BITMASK_SIZE * 32U; ++number) {
    if (rule.HasSyscall(number)) numbers.insert(number);
  }
  return numbers;
}

class ExtendedRulesTest : public ::testing::Test {
 protected:
  // Behind the watches.
  static std::vector<SeenRule> Create(const edr::EventRule& rule, const Coverage& coverage = kEverything) {
    std::vector<SeenRule> seen;
    const std::size_t watches = CreateRules(rule).size();
    for (AuditRule& created : CreateRules(rule, coverage)) seen.emplace_back(*created.Get());
    seen.erase(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(watches));
    return seen;
  }
  static std::vector<SeenRule> Create(const EventTypes& types) {
    return Create(*FakeRule::Directory("id", "/srv", types));
  }

  fakes::LogCapture log_;
};

TEST_F(ExtendedRulesTest, AreLeftOutUnlessTheyAreAskedFor) {
  EXPECT_TRUE(Create(*FakeRule::Directory("id", "/srv", {EventType::Write}), {}).empty());
  EXPECT_FALSE(log_.Has("AddExtendedRules"));
}

TEST_F(ExtendedRulesTest, TellTimesOpeningByHandleOpenFlagsAndIoUring) {
  const auto rules =
      Create({EventType::Create, EventType::Delete, EventType::Write, EventType::Rename, EventType::AttributeChange});
  ASSERT_EQ(rules.size(), 4U);
  const SeenRule::Field arch{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""};
  const SeenRule::Field path{AUDIT_DIR, AUDIT_EQUAL, 4, "/srv"};
  const SeenRule::Field key{AUDIT_FILTERKEY, AUDIT_EQUAL, 2, "id"};

  EXPECT_EQ(rules[0].fields, (std::vector<SeenRule::Field>{arch, path, key}));
  // utime, utimes, futimesat, utimensat, open_by_handle_at, fchmodat2
  EXPECT_EQ(NumbersOf(rules[0]), (Numbers{132, 235, 261, 280, 304, 452}));

  EXPECT_EQ(rules[1].fields, (std::vector<SeenRule::Field>{arch, {AUDIT_ARG1, AUDIT_BIT_MASK, 0x240, ""}, path, key}));
  EXPECT_EQ(NumbersOf(rules[1]), (Numbers{2}));
  EXPECT_EQ(rules[2].fields, (std::vector<SeenRule::Field>{arch, {AUDIT_ARG2, AUDIT_BIT_MASK, 0x240, ""}, path, key}));
  EXPECT_EQ(NumbersOf(rules[2]), (Numbers{257}));

  EXPECT_EQ(rules[3].flags, 7U);
  EXPECT_EQ(rules[3].fields, (std::vector<SeenRule::Field>{path, key}));
  EXPECT_EQ(NumbersOf(rules[3]), (Numbers{18, 28, 35, 36, 37, 38, 39, 41, 42}));
  for (const SeenRule& rule : rules) EXPECT_EQ(rule.action, 2U);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(rules[static_cast<std::size_t>(i)].flags, 4U);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_TRACE, "AddExtendedRules: Creating rules beyond the watches for rule id id"));
}

TEST_F(ExtendedRulesTest, LimitThemselvesToAWatchedFile) {
  const auto rules = Create(*FakeRule::File("id", "/etc/passwd", {EventType::Write, EventType::AttributeChange}));
  ASSERT_EQ(rules.size(), 4U);
  for (const SeenRule& rule : rules) {
    EXPECT_EQ(rule.Text(AUDIT_WATCH), "/etc/passwd");
    EXPECT_EQ(rule.Find(AUDIT_DIR), nullptr);
  }
}

TEST_F(ExtendedRulesTest, FollowTheActionsOfTheRule) {
  const auto attributes = Create({EventType::AttributeChange});
  ASSERT_EQ(attributes.size(), 2U);
  EXPECT_EQ(NumbersOf(attributes[0]), (Numbers{132, 235, 261, 280, 452}));
  EXPECT_EQ(NumbersOf(attributes[1]), (Numbers{41, 42}));

  for (const EventType type : {EventType::Create, EventType::Write}) {
    const auto opens = Create({type});
    ASSERT_EQ(opens.size(), 4U);
    EXPECT_EQ(NumbersOf(opens[0]), (Numbers{304}));
    EXPECT_EQ(NumbersOf(opens[3]), (Numbers{18, 28, 35, 36, 37, 38, 39}));
  }
  for (const EventType type : {EventType::Delete, EventType::Rename}) {
    const auto names = Create({type});
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(names[0].flags, 7U);
  }
  // Readers are heard when they belong to a login session, and a rule of this kind cannot tell.
  EXPECT_TRUE(Create({EventType::Read}).empty());
}

TEST_F(ExtendedRulesTest, LeaveIoUringOutOnAKernelThatDoesNotTakeIt) {
  const auto rules = Create(*FakeRule::Directory("id", "/srv", {EventType::Write, EventType::AttributeChange}),
                            {.extended = true, .io_uring = false});
  ASSERT_EQ(rules.size(), 3U);
  for (const SeenRule& rule : rules) EXPECT_EQ(rule.flags, 4U);
}

TEST_F(ExtendedRulesTest, RefuseAPathThatCannotBeWatched) {
  const FakeRule rule("id", edr::ObjectType::File, "", {EventType::Write});
  try {
    CreateExtendedRules(rule, kEverything);
    FAIL() << "no exception";
  } catch (const edr::RuleEngineException& error) {
    EXPECT_STREQ(error.what(), "AddExtendedRules: Failed to build a rule for rule id id");
  }
}

}  // namespace
}  // namespace zagent::audit::internal
