#include "src/audit/rules/Exclusions.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "tests/src/audit/rules/ExclusionsFixture.h"

namespace zagent::audit::internal {
namespace {

using fakes::SeenRule;

constexpr std::uint32_t kArchX86_64 = 0xC000003E;
constexpr unsigned kClone = 56;  // numbers of calls on x86-64
constexpr unsigned kExitGroup = 231;
constexpr const char* kThreadKey = "ostrel_ignore_thread_events_rule";

class ExclusionsTest : public ExclusionsFixture {};

TEST_F(ExclusionsTest, KnowsTheProgramAndItsAgent) {
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid, kAgentPid}));
}

TEST_F(ExclusionsTest, SilencesEveryCallOfAProcess) {
  exclusions_.AddAll(socket_);
  const SeenRule own = Rule("ostrel_ignore_rule_ostrel-edr");
  EXPECT_EQ(own.fields[0], (SeenRule::Field{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""}));
  EXPECT_EQ(own.fields[1], (SeenRule::Field{AUDIT_PID, AUDIT_EQUAL, kOwnPid, ""}));
  EXPECT_TRUE(own.HasAllSyscalls());
  EXPECT_EQ(own.action, static_cast<std::uint32_t>(AUDIT_NEVER));
  EXPECT_EQ(own.flags, static_cast<std::uint32_t>(AUDIT_FILTER_EXIT));
  EXPECT_EQ(Rule("ostrel_ignore_rule_host-warden").Find(AUDIT_PID)->value, static_cast<std::uint32_t>(kAgentPid));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Adding exclusion rule for pid 500"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Exclusion rule added for pid 400"));
}

TEST_F(ExclusionsTest, LetsTheExitOfAProcessThroughInFrontOfItsSilence) {
  exclusions_.AddAll(socket_);
  const SeenRule exit = Rule("ostrel_exit_rule_ostrel-edr");
  EXPECT_EQ(exit.Find(AUDIT_PID)->value, static_cast<std::uint32_t>(kOwnPid));
  EXPECT_TRUE(exit.HasSyscall(kExitGroup));
  EXPECT_EQ(exit.SyscallCount(), 1U);
  EXPECT_EQ(exit.action, static_cast<std::uint32_t>(AUDIT_ALWAYS));
  EXPECT_LT(PositionOf("ostrel_exit_rule_ostrel-edr"), PositionOf("ostrel_ignore_rule_ostrel-edr"));
  EXPECT_LT(PositionOf("ostrel_exit_rule_host-warden"), PositionOf("ostrel_ignore_rule_host-warden"));
}

TEST_F(ExclusionsTest, StandsInFrontOfOtherRules) {
  AddForeign("operator");
  exclusions_.AddAll(socket_);
  EXPECT_EQ(PositionOf("operator"), static_cast<int>(kernel_.Rules().size()) - 1);
}

TEST_F(ExclusionsTest, SilencesTheCreationOfThreads) {
  exclusions_.AddAll(socket_);
  const SeenRule rule = Rule(kThreadKey);
  EXPECT_EQ(rule.fields[0], (SeenRule::Field{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""}));
  EXPECT_EQ(rule.fields[1], (SeenRule::Field{AUDIT_ARG0, AUDIT_BIT_MASK, 65536, ""}));
  EXPECT_TRUE(rule.HasSyscall(kClone));
  EXPECT_EQ(rule.SyscallCount(), 1U);
  EXPECT_EQ(rule.action, static_cast<std::uint32_t>(AUDIT_NEVER));
  EXPECT_TRUE(log_.Has("Added thread exclusion rule to audit"));
}

TEST_F(ExclusionsTest, StopsEndOfEventRecords) {
  exclusions_.AddAll(socket_);
  ASSERT_EQ(MessageTypeRules(), 1U);
  for (const SeenRule& rule : kernel_.Rules()) {
    if (rule.Find(AUDIT_MSGTYPE) == nullptr) continue;
    EXPECT_EQ(rule.fields, (std::vector<SeenRule::Field>{{AUDIT_MSGTYPE, AUDIT_EQUAL, 1320, ""}}));
    EXPECT_EQ(rule.flags, static_cast<std::uint32_t>(AUDIT_FILTER_EXCLUDE));
    EXPECT_EQ(rule.action, static_cast<std::uint32_t>(AUDIT_ALWAYS));
  }
  EXPECT_TRUE(log_.Has("Adding exclusion message type rules"));
  EXPECT_TRUE(log_.Has("Exclusion rule for message type: EOE added in audit"));
}

TEST_F(ExclusionsTest, AddsNoSecondRuleUnderTheSameKey) {
  exclusions_.AddAll(socket_);
  Exclusions(kOwnPid, kAgentPid, "/opt/ostrel/bin/host-warden", processes_.Root()).AddAll(socket_);
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").size(), 1U);
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_exit_rule_ostrel-edr").size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Rule with key ostrel_ignore_rule_ostrel-edr already exist"));
}

TEST_F(ExclusionsTest, AddsEverythingAgainThatWasDeleted) {
  exclusions_.AddAll(socket_);
  const std::size_t all = kernel_.Rules().size();
  Exclusions::DeleteAll(socket_);
  ASSERT_TRUE(kernel_.Rules().empty());
  exclusions_.AddAll(socket_);
  EXPECT_EQ(kernel_.Rules().size(), all);
}

TEST_F(ExclusionsTest, ALeftoverOfAnotherProcessUnderTheSameKeyDoesNotStandInTheWay) {
  exclusions_.AddAll(socket_);
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  exclusions_.Update(socket_, kAgentPid + 1, "/opt/ostrel/bin/host-warden");
  const auto silences = [this](std::int32_t pid) {
    for (const SeenRule& rule : kernel_.RulesWithKey("ostrel_ignore_rule_host-warden")) {
      if (rule.Find(AUDIT_PID)->value == static_cast<std::uint32_t>(pid)) return true;
    }
    return false;
  };
  EXPECT_TRUE(silences(kAgentPid)) << "could not be deleted";
  EXPECT_TRUE(silences(kAgentPid + 1));
}

TEST_F(ExclusionsTest, TakesTheSilenceBackWhenTheExitRuleFails) {
  RefuseToAdd("ostrel_exit_rule_ostrel-edr", ENOSPC);
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").empty());
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to add exclusion rule for pid 500 (errno = 28)"));
  EXPECT_FALSE(log_.Has("Failed to clean up"));
}

TEST_F(ExclusionsTest, TellsWhenItCannotTakeTheSilenceBack) {
  RefuseToAdd("ostrel_exit_rule_ostrel-edr", ENOSPC);
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(log_.Has("Failed to clean up exclusion rule for pid 500 (errno = 1)"));
}

// The listing may have been cut short.
TEST_F(ExclusionsTest, TakesWhatIsThereAlreadyForAdded) {
  kernel_.refuse_add = [](const SeenRule&) { return EEXIST; };
  exclusions_.AddAll(socket_);
  EXPECT_FALSE(log_.Has("Failed to")) << log_.All();
  EXPECT_TRUE(log_.Has("Exclusion rule added for pid 500"));
}

TEST_F(ExclusionsTest, DoesNotTryTheExitRuleAfterTheSilenceFailed) {
  RefuseToAdd("ostrel_ignore_rule_ostrel-edr", EPERM);
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(log_.Has("Failed to add exclusion rule for pid 500 (errno = 1)"));
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_exit_rule_ostrel-edr").empty());
}

TEST_F(ExclusionsTest, RefusesAProcessIdThatIsNone) {
  Exclusions(kOwnPid, 0, "/opt/host-warden", processes_.Root()).AddAll(socket_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to create exclusion rule for pid 0"));
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
}

TEST_F(ExclusionsTest, RefusesAnAgentNameThatIsNoKey) {
  Exclusions(kOwnPid, kAgentPid, "/opt/host!=warden", processes_.Root()).AddAll(socket_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to add key to the exclusion rule for pid 400"));
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").size(), 1U);
}

TEST_F(ExclusionsTest, TellsFailuresOfTheOtherExclusionsAndGoesOn) {
  kernel_.refuse_add = [](const SeenRule& rule) {
    return rule.Key() == kThreadKey || rule.Find(AUDIT_MSGTYPE) != nullptr ? EPERM : 0;
  };
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(log_.Has("Failed to add exclusion rule for message type: EOE (errno = 1)"));
  EXPECT_TRUE(log_.Has("Failed to add thread exclusion rule to audit: Operation not permitted (1)"));
  EXPECT_FALSE(log_.Has("Failed to clean up exclusion rule for message type"));  // there was nothing
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(log_.Has("Failed to clean up exclusion rule for message type: EOE (errno = 1)"));
}

TEST_F(ExclusionsTest, DeletesWhatAnEarlierRunLeft) {
  processes_.Start(77, 1);
  processes_.Start(78, 2);
  Exclusions(77, 78, "/opt/old-warden", processes_.Root()).AddAll(socket_);
  AddForeign("operator");
  AddForeign("about ostrel_ignore_rule_");
  Exclusions::DeleteAll(socket_);
  ASSERT_EQ(kernel_.Rules().size(), 2U);
  EXPECT_EQ(kernel_.RulesWithKey("operator").size(), 1U);
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteExclusionRules: Deleted old rule ostrel_ignore_rule_old-warden"));
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteExclusionRules: Deleted old rule ostrel_exit_rule_ostrel-edr"));
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteExclusionRules: Deleted old rule ostrel_ignore_thread_events_rule"));
  EXPECT_TRUE(log_.Has("RuleEngine::DeleteExclusionMessageTypeRulesFromAudit Deleted rule for message type: EOE"));
}

TEST_F(ExclusionsTest, DeletesEachOfRulesThatPiledUpInFront) {
  for (int i = 0; i < 3; ++i) exclusions_.AddAll(socket_);
  EXPECT_EQ(MessageTypeRules(), 3U);
  Exclusions::DeleteAll(socket_);
  EXPECT_TRUE(kernel_.Rules().empty());
}

TEST_F(ExclusionsTest, OnlyTellsWhatItCannotDelete) {
  exclusions_.AddAll(socket_);
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  Exclusions::DeleteAll(socket_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to delete exclusion rule ostrel_ignore_rule_ostrel-edr"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to delete exclusion rule for message type: EOE"));
}

TEST_F(ExclusionsTest, MovesToTheAgentsNewProcess) {
  exclusions_.AddAll(socket_);
  ASSERT_TRUE(exclusions_.NeedsUpdate(401, "/opt/ostrel/bin/host-warden"));
  exclusions_.Update(socket_, 401, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(Rule("ostrel_ignore_rule_host-warden").Find(AUDIT_PID)->value, 401U);
  EXPECT_EQ(Rule("ostrel_exit_rule_host-warden").Find(AUDIT_PID)->value, 401U);
  EXPECT_LT(PositionOf("ostrel_exit_rule_host-warden"), PositionOf("ostrel_ignore_rule_host-warden"));
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid, 401}));
  EXPECT_TRUE(log_.Has("Deleted exclusion rule ostrel_ignore_rule_host-warden"));
  EXPECT_EQ(Rule("ostrel_ignore_rule_ostrel-edr").Find(AUDIT_PID)->value, static_cast<std::uint32_t>(kOwnPid));
}

TEST_F(ExclusionsTest, MovesToTheAgentsNewName) {
  exclusions_.AddAll(socket_);
  exclusions_.Update(socket_, kAgentPid, "/opt/ostrel/bin/new-warden");
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_exit_rule_host-warden").empty());
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_new-warden").size(), 1U);
}

TEST_F(ExclusionsTest, HasNothingToDoForTheSameAgentInAnotherFolder) {
  exclusions_.AddAll(socket_);
  EXPECT_FALSE(exclusions_.NeedsUpdate(kAgentPid, "/usr/bin/host-warden"));
}

TEST_F(ExclusionsTest, TriesAnExclusionAgainThatFailed) {
  RefuseToAdd("ostrel_ignore_rule_ostrel-edr", ENOBUFS);
  exclusions_.AddAll(socket_);
  kernel_.refuse_add = nullptr;
  ASSERT_TRUE(exclusions_.NeedsUpdate(kAgentPid, "/opt/ostrel/bin/host-warden"));
  exclusions_.Update(socket_, kAgentPid, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").size(), 1U);
  EXPECT_FALSE(exclusions_.NeedsUpdate(kAgentPid, "/opt/ostrel/bin/host-warden"));
}

TEST_F(ExclusionsTest, TellsAnOldExclusionThatItCannotDelete) {
  exclusions_.AddAll(socket_);
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  exclusions_.Update(socket_, 401, "/opt/ostrel/bin/host-warden");
  EXPECT_TRUE(log_.Has("Failed to delete exclusion rule ostrel_ignore_rule_host-warden"));
}

TEST_F(ExclusionsTest, AnAgentWithTheProgramsNameDoesNotPushItOut) {
  Exclusions exclusions(kOwnPid, kAgentPid, "/opt/ostrel-edr", processes_.Root());
  exclusions.AddAll(socket_);
  EXPECT_EQ(Rule("ostrel_ignore_rule_ostrel-edr").Find(AUDIT_PID)->value, static_cast<std::uint32_t>(kOwnPid));
  exclusions.Update(socket_, 401, "/opt/ostrel-edr");
  EXPECT_EQ(Rule("ostrel_ignore_rule_ostrel-edr").Find(AUDIT_PID)->value, static_cast<std::uint32_t>(kOwnPid));
  EXPECT_EQ(exclusions.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid, 401}));
  EXPECT_EQ(Rule("ostrel_ignore_rule_ostrel-edr_agent").Find(AUDIT_PID)->value, 401U);
}

}  // namespace
}  // namespace zagent::audit::internal
