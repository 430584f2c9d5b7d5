#include "src/audit/rules/Exclusions.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "common/src/util/ProcessTimes.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/audit/rules/ExclusionsFixture.h"

namespace zagent::audit::internal {
namespace {

using fakes::SeenRule;

// How an exclusion ends with its process, and comes with one of the family.
class ExclusionsLifeTest : public ExclusionsFixture {
 protected:
  [[nodiscard]] std::int64_t StartOf(std::int32_t pid) const {
    return common::util::ReadStartSinceBoot(pid, processes_.Root()).value_or(-1);
  }
  // The agent runs this program when it is entered.
  void Enter(const std::string& program) {
    processes_.Start(kAgentPid + 1, 20, program);
    exclusions_.Update(socket_, kAgentPid + 1, "/opt/ostrel/bin/host-warden");
    processes_.Start(kAgentPid, 20, program);
    exclusions_.Update(socket_, kAgentPid, "/opt/ostrel/bin/host-warden");
  }

  fakes::TempFolder folder_;
};

TEST_F(ExclusionsLifeTest, DiesWithItsProcess) {
  exclusions_.AddAll(socket_);
  EXPECT_TRUE(exclusions_.End(kAgentPid));
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid})) << "before the kernel is asked";
  exclusions_.RemoveEnded(socket_);
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_exit_rule_host-warden").empty());
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").size(), 1U);
  EXPECT_TRUE(log_.Has("The excluded process host-warden (400) has ended"));
  EXPECT_FALSE(exclusions_.End(kAgentPid)) << "once is enough";
}

TEST_F(ExclusionsLifeTest, EndsNoProcessThatIsNotExcludedAndNeverTheProgramItself) {
  exclusions_.AddAll(socket_);
  EXPECT_FALSE(exclusions_.End(77));
  EXPECT_FALSE(exclusions_.End(kOwnPid));
  EXPECT_EQ(exclusions_.GetExcludedPids().size(), 2U);
}

TEST_F(ExclusionsLifeTest, DoesNotSilenceWhoGotThePidOfAnExcludedProcess) {
  exclusions_.AddAll(socket_);
  EXPECT_FALSE(exclusions_.EndMissing());
  processes_.Start(kAgentPid, 21);
  LookAndRemove();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
}

TEST_F(ExclusionsLifeTest, DoesNotWaitForSomebodyToGetThePid) {
  exclusions_.AddAll(socket_);
  processes_.End(kAgentPid);
  LookAndRemove();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_exit_rule_host-warden").empty());
}

TEST_F(ExclusionsLifeTest, KeepsEverythingWhileNothingCanBeRead) {
  exclusions_.AddAll(socket_);
  processes_.End(kOwnPid);
  processes_.End(kAgentPid);
  EXPECT_FALSE(exclusions_.EndMissing());
  EXPECT_EQ(exclusions_.GetExcludedPids().size(), 2U);
}

TEST_F(ExclusionsLifeTest, TakesTheAgentBackThatHasEndedOnTheNextCommand) {
  exclusions_.AddAll(socket_);
  exclusions_.End(kAgentPid);
  exclusions_.RemoveEnded(socket_);
  ASSERT_TRUE(exclusions_.NeedsUpdate(kAgentPid, "/opt/ostrel/bin/host-warden"));
  exclusions_.Update(socket_, kAgentPid, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").size(), 1U);
  EXPECT_FALSE(exclusions_.NeedsUpdate(kAgentPid, "/opt/ostrel/bin/host-warden"));
}

TEST_F(ExclusionsLifeTest, RemembersWhatItCouldNotTakeOutOfTheKernel) {
  exclusions_.AddAll(socket_);
  exclusions_.End(kAgentPid);  // and no socket to be had
  EXPECT_TRUE(exclusions_.EndMissing());
  exclusions_.RemoveEnded(socket_);
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_FALSE(exclusions_.EndMissing());
}

TEST_F(ExclusionsLifeTest, AnAgentThatHasGoneAlreadySilencesNobody) {
  exclusions_.AddAll(socket_);
  exclusions_.Update(socket_, 402, "/opt/ostrel/bin/host-warden");
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
  processes_.Start(402, 22);
  ASSERT_TRUE(exclusions_.NeedsUpdate(402, "/opt/ostrel/bin/host-warden"));
  exclusions_.Update(socket_, 402, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(Rule("ostrel_ignore_rule_host-warden").Find(AUDIT_PID)->value, 402U);
}

TEST_F(ExclusionsLifeTest, AnAgentWithTheProgramsNameEndsLikeAnyOther) {
  Exclusions exclusions(kOwnPid, kAgentPid, "/opt/ostrel-edr", processes_.Root());
  exclusions.AddAll(socket_);
  processes_.Start(kAgentPid, 21);
  ASSERT_TRUE(exclusions.EndMissing());
  exclusions.RemoveEnded(socket_);
  EXPECT_EQ(exclusions.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
  EXPECT_EQ(exclusions.GetAgentPids(), (std::set<std::int32_t>{kOwnPid}));
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr_agent").empty());
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_ostrel-edr").size(), 1U);
}

// What is made up has the process 0 for its actor.
TEST_F(ExclusionsLifeTest, AnAgentWithoutAProcessExcludesNobody) {
  for (const std::int32_t pid : {0, -1}) {
    Exclusions exclusions(kOwnPid, pid, "/opt/host-warden", processes_.Root());
    exclusions.AddAll(socket_);
    EXPECT_EQ(exclusions.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
    EXPECT_EQ(exclusions.GetAgentPids(), (std::set<std::int32_t>{kOwnPid}));
    EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
    EXPECT_FALSE(exclusions.NeedsUpdate(pid, "/opt/host-warden"));
    EXPECT_TRUE(exclusions.NeedsUpdate(kAgentPid, "/opt/host-warden"));
  }
}

TEST_F(ExclusionsLifeTest, LooksAtOneProcessWhenItsNameIsAskedFor) {
  exclusions_.AddAll(socket_);
  EXPECT_FALSE(exclusions_.EndIfMissing("host-warden")) << "it lives";
  EXPECT_FALSE(exclusions_.EndIfMissing("unheard-of"));
  processes_.End(kAgentPid);
  EXPECT_FALSE(exclusions_.EndIfMissing("ostrel-edr"));
  EXPECT_TRUE(exclusions_.EndIfMissing("host-warden"));
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
  processes_.End(kOwnPid);
  EXPECT_FALSE(exclusions_.EndIfMissing("ostrel-edr")) << "never the program itself";
}

TEST_F(ExclusionsLifeTest, AnAgentIsTakenForAliveWhileNothingCanBeRead) {
  processes_.End(kOwnPid);
  Exclusions exclusions(kOwnPid, 402, "/opt/ostrel/bin/host-warden", processes_.Root());
  exclusions.AddAll(socket_);
  EXPECT_EQ(Rule("ostrel_ignore_rule_host-warden").Find(AUDIT_PID)->value, 402U);
}

TEST_F(ExclusionsLifeTest, AFailedDeletionIsTriedAgain) {
  exclusions_.AddAll(socket_);
  processes_.End(kAgentPid);
  kernel_.refuse_delete = [](const SeenRule& rule) { return rule.Key().find("ignore") != std::string::npos ? EIO : 0; };
  LookAndRemove();
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").size(), 1U);
  EXPECT_EQ(exclusions_.GetExcludedPids().count(kAgentPid), 0U);
  kernel_.refuse_delete = nullptr;
  LookAndRemove();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_FALSE(exclusions_.EndMissing()) << "nothing is left to do";
}

TEST_F(ExclusionsLifeTest, WhatCouldNotBeListedMayStillBeThere) {
  exclusions_.AddAll(socket_);
  exclusions_.End(kAgentPid);
  kernel_.request_error = EIO;
  LookAndRemove();
  kernel_.request_error = 0;
  kernel_.reply_error = EIO;
  LookAndRemove();
  kernel_.reply_error = 0;
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").size(), 1U);
  LookAndRemove();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
}

TEST_F(ExclusionsLifeTest, ARuleThatWentMeanwhileIsGone) {
  exclusions_.AddAll(socket_);
  exclusions_.End(kAgentPid);
  kernel_.refuse_delete = [](const SeenRule&) { return ENOENT; };
  exclusions_.RemoveEnded(socket_);
  EXPECT_FALSE(exclusions_.EndMissing());
  EXPECT_FALSE(log_.Has("Failed to delete exclusion rule"));
}

TEST_F(ExclusionsLifeTest, ALeftoverIsRemovedWithoutItsSuccessor) {
  exclusions_.AddAll(socket_);
  kernel_.refuse_delete = [](const SeenRule&) { return EPERM; };
  exclusions_.Update(socket_, 401, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").size(), 2U);
  kernel_.refuse_delete = nullptr;
  LookAndRemove();
  EXPECT_EQ(Rule("ostrel_ignore_rule_host-warden").Find(AUDIT_PID)->value, 401U);
  EXPECT_EQ(Rule("ostrel_exit_rule_host-warden").Find(AUDIT_PID)->value, 401U);
}

TEST_F(ExclusionsLifeTest, ExcludesASiblingUnderItsName) {
  exclusions_.AddAll(socket_);
  processes_.Start(600, 30);
  EXPECT_FALSE(exclusions_.Contains("updated"));
  exclusions_.Add(socket_, "updated", 600, StartOf(600));
  EXPECT_TRUE(exclusions_.Contains("updated"));
  EXPECT_EQ(Rule("ostrel_ignore_rule_updated").Find(AUDIT_PID)->value, 600U);
  EXPECT_EQ(exclusions_.GetExcludedPids().count(600), 1U);
  processes_.Start(601, 31);
  exclusions_.Add(socket_, "updated", 601, StartOf(601));
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_updated").size(), 1U) << "the name is taken";
}

TEST_F(ExclusionsLifeTest, GivesTheNameOfASiblingToTheAgentThatClaimsIt) {
  exclusions_.AddAll(socket_);
  processes_.Start(600, 30);
  exclusions_.Add(socket_, "updated", 600, StartOf(600));
  exclusions_.Update(socket_, 401, "/opt/ostrel/bin/updated");
  EXPECT_EQ(Rule("ostrel_ignore_rule_updated").Find(AUDIT_PID)->value, 401U);
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid, 401}));
}

TEST_F(ExclusionsLifeTest, ExcludesNoSiblingThatIsGoneOrAnotherOneByNow) {
  exclusions_.Add(socket_, "updated", 600, 30);
  processes_.Start(600, 30);
  exclusions_.Add(socket_, "updated", 600, StartOf(600) + 1);
  EXPECT_FALSE(exclusions_.Contains("updated"));
  EXPECT_TRUE(kernel_.Rules().empty());
}

// --- the program that it runs

TEST_F(ExclusionsLifeTest, DoesNotSilenceWhoMakesAnExcludedProcessRunSomethingElse) {
  Enter(folder_.Write("host-warden", "the agent"));
  exclusions_.AddAll(socket_);
  ASSERT_FALSE(exclusions_.EndMissing());
  processes_.Start(kAgentPid, 20, folder_.Write("sh", "a shell"));  // by exec: pid and start stay
  LookAndRemove();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").empty());
  EXPECT_EQ(exclusions_.GetExcludedPids(), (std::set<std::int32_t>{kOwnPid}));
}

TEST_F(ExclusionsLifeTest, StaysWithAnAgentThatStartsItsNextVersion) {
  Enter(folder_.Write("host-warden", "the agent"));
  exclusions_.AddAll(socket_);
  for (const char* version : {"second", "third"}) {
    std::filesystem::rename(folder_ / "host-warden", folder_ / version);
    processes_.Start(kAgentPid, 20, folder_.Write("host-warden", version));
    EXPECT_FALSE(exclusions_.EndMissing()) << version;
  }
}

TEST_F(ExclusionsLifeTest, DoesNotTakeAStrangersFileForTheNextVersion) {
  Enter(folder_.Write("host-warden", "the agent"));
  exclusions_.AddAll(socket_);
  std::filesystem::rename(folder_ / "host-warden", folder_ / "old");
  processes_.Start(kAgentPid, 20, folder_.Write("host-warden", "a stranger's"));
  ASSERT_EQ(chown((folder_ / "host-warden").c_str(), 1000, 0), 0);
  EXPECT_TRUE(exclusions_.EndMissing());
}

TEST_F(ExclusionsLifeTest, DoesNotTakeAFileThatEverybodyMayWriteForTheNextVersion) {
  Enter(folder_.Write("host-warden", "the agent"));
  exclusions_.AddAll(socket_);
  std::filesystem::rename(folder_ / "host-warden", folder_ / "old");
  processes_.Start(kAgentPid, 20, folder_.Write("host-warden", "anybody's"));
  ASSERT_EQ(chmod((folder_ / "host-warden").c_str(), 0777), 0);
  EXPECT_TRUE(exclusions_.EndMissing());
}

TEST_F(ExclusionsLifeTest, SaysNothingOfAProgramThatCannotBeRead) {
  Enter(folder_.Write("host-warden", "the agent"));
  processes_.Start(kAgentPid, 20);
  EXPECT_FALSE(exclusions_.EndMissing());
}

}  // namespace
}  // namespace zagent::audit::internal
