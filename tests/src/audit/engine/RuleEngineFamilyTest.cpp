#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "tests/fakes/FakeProcessInfo.h"
#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;

// How the kernel's exclusions follow the processes of the product family.
class RuleEngineFamilyTest : public RuleEngineFixture {
 protected:
  void Process(EventType type, std::int32_t pid, const std::string& image, std::uint32_t uid = 0) {
    auto event = std::make_unique<FakeEvent>();
    event->type = type;
    event->object_type = ObjectType::Process;
    event->pid = pid;
    event->uid = event->euid = uid;
    event->image.reset();
    if (!image.empty()) event->image = common::ImageInfo(image);
    engine_->ProcessEvent(std::move(event));
  }
  // Whether a change by this process reaches the components.
  bool IsHeard(std::int32_t pid) {
    heard_.clear();
    auto event = FolderEvent(1, folder_ / "sub");
    event->pid = pid;
    engine_->ProcessEvent(std::move(event));
    return !heard_.empty();
  }
  [[nodiscard]] bool IsExcluded(const std::string& name) const {
    return !kernel_.RulesWithKey("ostrel_ignore_rule_" + name).empty();
  }
  void Listen() {
    RuleEngineFixture::Listen("FIM");
    engine_->AddRules("FIM", {Watch("a")});
  }
};

TEST_F(RuleEngineFamilyTest, ExcludesASiblingWhenItStarts) {
  processes_.Start(600, 30, updated_);
  Process(EventType::ProcessStart, 600, updated_);
  ASSERT_TRUE(IsExcluded("updated"));
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_exit_rule_updated").front().Find(AUDIT_PID)->value, 600U);
}

TEST_F(RuleEngineFamilyTest, ExcludesTheFirstProcessOfAName) {
  processes_.Start(600, 30, updated_);
  processes_.Start(601, 31, updated_);
  Process(EventType::ProcessStart, 600, updated_);
  Process(EventType::ProcessStart, 601, updated_);
  ASSERT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_updated").size(), 1U);
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_updated").front().Find(AUDIT_PID)->value, 600U);
  Process(EventType::ProcessExit, 601, updated_);
  EXPECT_TRUE(IsExcluded("updated")) << "that was the other one";
}

TEST_F(RuleEngineFamilyTest, ExcludesASiblingThatWasKilledAndStartedAnew) {
  processes_.Start(600, 30, updated_);
  Process(EventType::ProcessStart, 600, updated_);
  processes_.End(600);  // by SIGKILL, of which no record tells
  processes_.Start(601, 31, updated_);
  Process(EventType::ProcessStart, 601, updated_);
  for (const std::string key : {"ostrel_ignore_rule_updated", "ostrel_exit_rule_updated"}) {
    ASSERT_EQ(kernel_.RulesWithKey(key).size(), 1U);
    EXPECT_EQ(kernel_.RulesWithKey(key).front().Find(AUDIT_PID)->value, 601U);
  }
  Listen();
  EXPECT_TRUE(IsHeard(600)) << "whoever gets that pid is heard";
}

TEST_F(RuleEngineFamilyTest, LetsASiblingGoThatHasEnded) {
  Listen();
  processes_.Start(600, 30, updated_);
  Process(EventType::ProcessStart, 600, updated_);
  EXPECT_FALSE(IsHeard(600));
  Process(EventType::ProcessExit, 600, updated_);
  EXPECT_FALSE(IsExcluded("updated"));
  EXPECT_TRUE(IsHeard(600));
}

TEST_F(RuleEngineFamilyTest, LetsASiblingGoThatHasEndedAbnormally) {
  processes_.Start(600, 30, updated_);
  Process(EventType::ProcessStart, 600, updated_);
  Process(EventType::AbnormalEnd, 600, "");
  EXPECT_FALSE(IsExcluded("updated"));
}

TEST_F(RuleEngineFamilyTest, GivesNoRuleToAProcessThatIsOnlyCalledLikeASibling) {
  processes_.Start(600, 30, "/bin/sh");
  Process(EventType::ProcessStart, 600, updated_);
  processes_.Start(601, 30, updated_);
  Process(EventType::ProcessStart, 601, "/tmp/updated");
  processes_.Start(602, 30);
  Process(EventType::ProcessStart, 602, updated_, 1000);
  EXPECT_FALSE(IsExcluded("updated"));
}

TEST_F(RuleEngineFamilyTest, HearsADressedUpSibling) {
  Listen();
  processes_.Start(600, 30, "/bin/sh");
  auto event = FolderEvent(1, folder_ / "sub");
  event->pid = 600;
  event->image = common::ImageInfo(updated_);
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

TEST_F(RuleEngineFamilyTest, GivesNoRuleToASiblingThatAStrangerRuns) {
  processes_.Start(600, 30, updated_, 1000);
  Process(EventType::ProcessStart, 600, updated_);
  EXPECT_FALSE(IsExcluded("updated"));
}

TEST_F(RuleEngineFamilyTest, TakesTheRuleBackFromAProcessThatBecameAnotherWhileItCame) {
  Listen();
  const auto when_the_rule_comes = [this](auto action) {
    kernel_.refuse_add = [action](const fakes::SeenRule& rule) {
      if (rule.Key() == "ostrel_exit_rule_updated") action();
      return 0;
    };
  };
  processes_.Start(600, 30, updated_);
  when_the_rule_comes([this] { processes_.Start(600, 30, "/bin/sh"); });  // by exec
  Process(EventType::ProcessStart, 600, updated_);
  EXPECT_FALSE(IsExcluded("updated"));
  EXPECT_TRUE(IsHeard(600));

  processes_.Start(601, 31, updated_);
  when_the_rule_comes([this] { processes_.Start(601, 99, updated_); });  // another one on its pid
  Process(EventType::ProcessStart, 601, updated_);
  EXPECT_FALSE(IsExcluded("updated"));
}

TEST_F(RuleEngineFamilyTest, TellsThatItCannotAskTheKernelForASibling) {
  processes_.Start(600, 30, updated_);
  kernel_.open_error = EMFILE;
  Process(EventType::ProcessStart, 600, updated_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to open audit socket for handling ostrel process event"));
  kernel_.open_error = 0;
  Process(EventType::ProcessStart, 600, updated_);
  EXPECT_TRUE(IsExcluded("updated"));
}

TEST_F(RuleEngineFamilyTest, HearsWhoGetsThePidOfTheAgentAfterItsExit) {
  Listen();
  EXPECT_FALSE(IsHeard(400));
  Process(EventType::ProcessExit, 400, "/opt/ostrel/bin/host-warden");
  EXPECT_TRUE(log_.Has("Dropping Ostrel generated event")) << "the exit is the agent's own";
  EXPECT_FALSE(IsExcluded("host-warden"));
  EXPECT_TRUE(IsHeard(400));
}

TEST_F(RuleEngineFamilyTest, HearsHimEvenBeforeTheKernelCouldBeAskedToRemoveTheExclusion) {
  Listen();
  kernel_.open_error = EMFILE;
  Process(EventType::ProcessExit, 400, "/opt/ostrel/bin/host-warden");
  EXPECT_TRUE(IsHeard(400));
  EXPECT_TRUE(IsExcluded("host-warden"));
  kernel_.open_error = 0;
  engine_->LookAtExclusions();
  EXPECT_FALSE(IsExcluded("host-warden"));
}

TEST_F(RuleEngineFamilyTest, LooksOnceAMinuteWhetherTheAgentIsStillTheAgent) {
  processes_.Start(400, 21);
  clock_.Advance(59s);
  engine_->OnIdle();
  EXPECT_TRUE(IsExcluded("host-warden"));
  clock_.Advance(1s);
  engine_->OnIdle();
  EXPECT_FALSE(IsExcluded("host-warden"));
  EXPECT_TRUE(IsExcluded("ostrel-edr"));
}

TEST_F(RuleEngineFamilyTest, TellsWhenTheLookFailsAndTriesAgain) {
  processes_.End(400);
  kernel_.open_error = EMFILE;
  engine_->LookAtExclusions();
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to renew exclusion rules: Failed to open audit socket"));
  kernel_.open_error = 0;
  engine_->LookAtExclusions();
  EXPECT_FALSE(IsExcluded("host-warden"));
}

TEST_F(RuleEngineFamilyTest, AFailedDeletionOfAnExclusionIsTriedAgain) {
  processes_.End(400);
  kernel_.refuse_delete = [](const fakes::SeenRule&) { return EIO; };
  engine_->LookAtExclusions();
  EXPECT_TRUE(IsExcluded("host-warden"));
  kernel_.refuse_delete = nullptr;
  clock_.Advance(60s);
  engine_->OnIdle();
  EXPECT_FALSE(IsExcluded("host-warden"));
}

TEST_F(RuleEngineFamilyTest, TriesWhatCouldNotBeExcludedAgainEachMinute) {
  engine_.reset();
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOBUFS; };
  Start();
  EXPECT_EQ(Exclusions(), 0U);
  const auto errors = [this] {
    const std::vector<Poco::Message> lines = log_.Lines();
    return std::count_if(lines.begin(), lines.end(),
                         [](const Poco::Message& line) { return line.getPriority() == Poco::Message::PRIO_ERROR; });
  };
  const auto told = errors();
  clock_.Advance(60s);
  engine_->OnIdle();
  EXPECT_EQ(Exclusions(), 0U);
  EXPECT_EQ(errors(), told) << "once is enough";
  kernel_.refuse_add = nullptr;
  clock_.Advance(59s);
  engine_->OnIdle();
  EXPECT_EQ(Exclusions(), 0U);
  clock_.Advance(1s);
  engine_->OnIdle();
  EXPECT_EQ(Exclusions(), kAllExclusions);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "All exclusion rules are in force now"));
  const int asked = kernel_.OpenCount();
  clock_.Advance(60s);
  engine_->OnIdle();
  EXPECT_EQ(kernel_.OpenCount(), asked) << "nothing is left to do";
}

TEST_F(RuleEngineFamilyTest, ExcludesTheAgentAgainThatComesBack) {
  Process(EventType::ProcessExit, 400, "/opt/ostrel/bin/host-warden");
  engine_->UpdateExclusions(401, "/opt/ostrel/bin/host-warden");
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_host-warden").at(0).Find(AUDIT_PID)->value, 401U);
}

TEST_F(RuleEngineFamilyTest, DropsTheRestedWriteOfAnAgentThatItLearnsOfMeanwhile) {
  Listen();
  const auto write = [this](std::int32_t pid) {
    auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
    event->pid = pid;
    event->image = common::ImageInfo("/usr/sbin/next-agent");
    engine_->ProcessEvent(std::move(event));
  };
  processes_.Start(401, 70);
  write(401);
  write(402);
  engine_->UpdateExclusions(401, "/usr/sbin/next-agent");
  clock_.Advance(31s);
  while (engine_->OnIdle()) continue;
  EXPECT_EQ(heard_.size(), 1U);
  EXPECT_TRUE(log_.Has("AuditRuleEngine::ShouldProcessEvent: Dropping Ostrel generated event with ID: 1"));
}

TEST_F(RuleEngineFamilyTest, KnowsTheProcessesOfContainers) {
  FakeEvent event;
  event.image = common::ImageInfo("/usr/bin/containerd-shim");
  EXPECT_TRUE(engine_->IsContainerProcess(event));
  event.image = common::ImageInfo("/usr/bin/sh");
  EXPECT_FALSE(engine_->IsContainerProcess(event));
}

}  // namespace
}  // namespace zagent::audit
