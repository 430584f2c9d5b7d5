#include "src/audit/rules/SyscallRules.h"

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
using edr::ObjectType;
using fakes::FakeRule;
using fakes::SeenRule;

constexpr std::uint32_t kArchX86_64 = 0xC000003E;

class SyscallRulesTest : public ::testing::Test {
 protected:
  // The one kernel rule; a test fails when there are others.
  static SeenRule Create(ObjectType type, const EventTypes& types, const Coverage& coverage = {}) {
    std::vector<AuditRule> rules = CreateRules(FakeRule("id", type, "/bin/sh", types), coverage);
    EXPECT_EQ(rules.size(), 1U);
    return SeenRule(*rules.at(0).Get());
  }
  static std::set<unsigned> CallsOf(const SeenRule& rule) {
    std::set<unsigned> calls;
    for (unsigned number = 0; number < AUDIT_BITMASK_SIZE * 32U; ++number) {
      if (rule.HasSyscall(number)) calls.insert(number);
    }
    return calls;
  }
  static std::string ErrorOf(ObjectType type, const EventTypes& types) {
    try {
      CreateRules(FakeRule("id", type, "/bin/sh", types));
    } catch (const edr::RuleEngineException& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
};

TEST_F(SyscallRulesTest, HearsTheCallsOfEachProcessAction) {
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::ProcessStart})), (std::set<unsigned>{59}));
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::ProcessClone})), (std::set<unsigned>{56, 57, 58}));
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::ProcessExit})), (std::set<unsigned>{231}));
}

TEST_F(SyscallRulesTest, HearsTheCallOfEachNetworkAction) {
  EXPECT_EQ(CallsOf(Create(ObjectType::Network, {EventType::Accept})), (std::set<unsigned>{43}));
  EXPECT_EQ(CallsOf(Create(ObjectType::Network, {EventType::Connect})), (std::set<unsigned>{42}));
  EXPECT_EQ(CallsOf(Create(ObjectType::Network, {EventType::Bind})), (std::set<unsigned>{49}));
}

TEST_F(SyscallRulesTest, AsksForAllCallsOfARuleAtOnceUnderItsId) {
  const SeenRule rule = Create(ObjectType::Process, {EventType::ProcessStart, EventType::ProcessExit});
  EXPECT_EQ(CallsOf(rule), (std::set<unsigned>{59, 231}));
  EXPECT_EQ(rule.flags, static_cast<std::uint32_t>(AUDIT_FILTER_EXIT));
  EXPECT_EQ(rule.action, static_cast<std::uint32_t>(AUDIT_ALWAYS));
  EXPECT_EQ(rule.fields, (std::vector<SeenRule::Field>{{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""},
                                                       {AUDIT_FILTERKEY, AUDIT_EQUAL, 2, "id"}}));
  EXPECT_TRUE(log_.Has("AddProcessRules: Creating process rules for rule ID id"));
  EXPECT_TRUE(log_.Has("AddSyscalls: Adding syscall 'execve'"));
  Create(ObjectType::Network, {EventType::Bind});
  EXPECT_TRUE(log_.Has("AddNetworkRules: Creating network rules for rule id id"));
}

TEST_F(SyscallRulesTest, HearsStartsByDescriptorWhereCoverageIsExtended) {
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::ProcessStart}, {.extended = true})),
            (std::set<unsigned>{59, 322}));
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::ProcessExit}, {.extended = true})),
            (std::set<unsigned>{231}));
}

TEST_F(SyscallRulesTest, PassesOverActionsOfAnotherKind) {
  EXPECT_EQ(CallsOf(Create(ObjectType::Process, {EventType::Write, EventType::ProcessStart})),
            (std::set<unsigned>{59}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "AddProcessRules: Unsupported action 5"));
  EXPECT_EQ(CallsOf(Create(ObjectType::Network, {EventType::Write, EventType::Bind})), (std::set<unsigned>{49}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "AddNetworkRules: Unsupported network action 5"));
}

// What it is about may be told without a call, as an abnormal end is.
TEST_F(SyscallRulesTest, TakesARuleThatNoCallIsLeftOf) {
  const SeenRule process = Create(ObjectType::Process, {EventType::AbnormalEnd});
  EXPECT_TRUE(CallsOf(process).empty());
  EXPECT_EQ(process.Key(), "id");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "AddProcessRules: Unsupported action 16"));
  EXPECT_TRUE(CallsOf(Create(ObjectType::Network, {})).empty());
}

}  // namespace
}  // namespace zagent::audit::internal
