#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "src/edr/process/EventBytes.h"
#include "tests/fakes/Gate.h"
#include "tests/src/audit/engine/RuleEnginePathsFixture.h"

namespace zagent::audit {
namespace {

using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;
using fakes::SeenRule;

// The event thread while a change of rules waits for the kernel.
class RuleEngineSnapshotTest : public RuleEnginePathsFixture {
 protected:
  ~RuleEngineSnapshotTest() override { LetGo(); }

  // Another thread adds these rules, and the kernel does not answer it until LetGo.
  void HoldChange(const std::string& tag, edr::EventRuleEngine::Rules rules) {
    kernel_.refuse_add = [this](const SeenRule& /*rule*/) {
      in_kernel_.Open();
      static_cast<void>(let_go_.Await(10 * fakes::kTestPatience));
      return 0;
    };
    change_ = std::async(std::launch::async, [this, tag, added = std::move(rules)] { engine_->AddRules(tag, added); });
    ASSERT_TRUE(in_kernel_.Await());
  }
  void LetGo() {
    let_go_.Open();
    if (change_.valid()) change_.get();
  }
  // On a thread of its own, which an engine that waits holds up. The end of the test lets it go.
  [[nodiscard]] bool DoesNotWait(const std::function<void()>& work) {
    std::future<void> done = std::async(std::launch::async, work);
    const bool is_done = done.wait_for(fakes::kTestPatience) == std::future_status::ready;
    if (!is_done) LetGo();
    done.get();
    return is_done;
  }
  Rule Other() { return FakeRule::Directory("other", base_ + "/other", {EventType::Write}); }

  fakes::Gate in_kernel_;
  fakes::Gate let_go_;
  std::future<void> change_;
};

TEST_F(RuleEngineSnapshotTest, EventsAreJudgedWhileARuleIsOnItsWayIntoTheKernel) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    Process(EventType::Create, "Create", watched_ + "/new");
    engine_->ProcessEvent(std::make_unique<FakeEvent>(EventType::Write, "Write", watched_ + "/file"));
    Settle();
  }));
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/new", "Write " + watched_ + "/file"}));
}

TEST_F(RuleEngineSnapshotTest, AnEventThatTheFirstOfManyRulesBringsFindsItsRule) {
  RuleEngineFixture::Listen("IOC");
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] { engine_->ProcessEvent(FolderEvent(7, base_ + "/other/new")); }));
  EXPECT_EQ(heard_, (Ids{"IOC other,:7"}));
}

TEST_F(RuleEngineSnapshotTest, AnEventOfARuleThatIsBeingTakenAwayIsNobodysAnyMore) {
  HoldChange("FIM", {Other()});
  EXPECT_TRUE(DoesNotWait([this] { Process(EventType::Create, "Create", watched_ + "/new"); }));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineSnapshotTest, UntilAllOwnersAreBackEventsAreJudgedByTheRulesThatWere) {
  const auto at_other = [this] { engine_->ProcessEvent(FolderEvent(7, base_ + "/other/new")); };
  RuleEngineFixture::Listen("IOC");
  engine_->AddRules("IOC", {Other()});
  std::atomic<bool> is_first{true};
  engine_->RegisterEventHandlers(
      "A", [](const Ids&, const edr::Event&) {},
      [&] {
        if (!is_first.exchange(false)) return;
        engine_->AddRules("A", {FakeRule::Directory("a", base_ + "/a", {EventType::Write})});
        at_other();
      });
  engine_->Invalidate();
  EXPECT_EQ(heard_, (Ids{"IOC other,:7"}));
  heard_.clear();
  at_other();
  EXPECT_TRUE(heard_.empty()) << "an owner that has not come back";
}

TEST_F(RuleEngineSnapshotTest, ARuleThatIsRefusedInTheEndIsNotKnownAfterwards) {
  RuleEngineFixture::Listen("IOC");
  const auto no_permission = FakeRule::Directory("none", base_ + "/other", {});
  EXPECT_THROW(engine_->AddRules("IOC", {no_permission}), edr::RuleEngineException);
  engine_->ProcessEvent(FolderEvent(7, base_ + "/other/new"));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineSnapshotTest, AFolderThatGoesAndComesIsFollowedWhenTheKernelIsFree) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    std::filesystem::remove_all(watched_);
    Process(EventType::Delete, "Delete", watched_);
    engine_->OnIdle();
  }));
  EXPECT_FALSE(log_.Has("Rule rule is not in force any more"));
  LetGo();
  engine_->OnIdle();
  EXPECT_TRUE(log_.Has("Rule rule is not in force any more: " + watched_ + " is gone"));

  std::filesystem::create_directory(watched_);
  Process(EventType::Create, "Create", watched_);
  EXPECT_TRUE(log_.Has("Rule rule is in force: " + watched_ + " is there now"));
}

TEST_F(RuleEngineSnapshotTest, AFolderThatComesMeanwhileIsWatchedWhenTheKernelIsFree) {
  RemoveFolder();
  ASSERT_TRUE(IsWaiting());
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    std::filesystem::create_directory(watched_);
    Process(EventType::Create, "Create", watched_);
  }));
  EXPECT_FALSE(log_.Has("Rule rule is in force: "));
  LetGo();
  engine_->OnIdle();
  EXPECT_TRUE(log_.Has("Rule rule is in force: " + watched_ + " is there now"));
}

TEST_F(RuleEngineSnapshotTest, AFolderIsLookedAtAgainWhenAChangeBeganMeanwhile) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  std::atomic<bool> is_first{true};
  look_at_ = [&](const internal::WatchedPlace& place) {
    if (is_first.exchange(false)) HoldChange("IOC", {Other()});
    return internal::LookAt(place);
  };
  EXPECT_TRUE(DoesNotWait([this] { Process(EventType::Create, "Create", watched_); }));
  EXPECT_FALSE(log_.Has("Rule rule is in force: "));
  LetGo();
  engine_->OnIdle();
  EXPECT_TRUE(log_.Has("Rule rule is in force: " + watched_ + " is there now"));
}

TEST_F(RuleEngineSnapshotTest, WhatTheKernelSaysOfADroppedRuleIsToldWhenItIsFree) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] { TellOfDroppedRule(false); }));
  EXPECT_TRUE(heard_.empty());
  LetGo();
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
}

TEST_F(RuleEngineSnapshotTest, WordsOfTheKernelThatAreLeftAtTheStopAreCounted) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    engine_->OnStop(std::chrono::seconds(1));
  }));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 1U);
}

TEST_F(RuleEngineSnapshotTest, NoMoreThanAThousandWordsOfTheKernelWait) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    for (int i = 0; i < 1'001; ++i) TellOfDroppedRule(false);
  }));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 1U);
}

TEST_F(RuleEngineSnapshotTest, ASiblingThatStartsMeanwhileIsExcludedWhenTheKernelIsFree) {
  processes_.Start(600, 30, updated_);
  HoldChange("IOC", {Other()});
  const auto tell = [this](EventType type) {
    auto event = std::make_unique<FakeEvent>();
    event->type = type;
    event->object_type = ObjectType::Process;
    event->pid = 600;
    event->uid = event->euid = 0;
    event->image = common::ImageInfo(updated_);
    engine_->ProcessEvent(std::move(event));
  };
  EXPECT_TRUE(DoesNotWait([&] { tell(EventType::ProcessStart); }));
  LetGo();
  EXPECT_TRUE(kernel_.RulesWithKey("ostrel_ignore_rule_updated").empty());
  engine_->OnIdle();
  ASSERT_EQ(kernel_.RulesWithKey("ostrel_ignore_rule_updated").size(), 1U);
  EXPECT_EQ(kernel_.RulesWithKey("ostrel_exit_rule_updated").front().Find(AUDIT_PID)->value, 600U);
}

TEST_F(RuleEngineSnapshotTest, TheLookAtTheExcludedProcessesWaitsForAFreeKernel) {
  HoldChange("IOC", {Other()});
  clock_.Advance(std::chrono::seconds(61));
  processes_.End(400);
  EXPECT_TRUE(DoesNotWait([this] { engine_->OnIdle(); }));
  LetGo();
  EXPECT_FALSE(log_.Has("The excluded process host-warden (400) has ended"));
  engine_->OnIdle();
  EXPECT_TRUE(log_.Has("The excluded process host-warden (400) has ended"));
}

TEST_F(RuleEngineSnapshotTest, TheParentAgentIsLookedAtOnceTheKernelIsFreeAndNobodyWaitsForThat) {
  HoldChange("IOC", {Other()});
  processes_.End(400);
  EXPECT_TRUE(DoesNotWait([this] { engine_->LookAtExclusions(); }));
  LetGo();
  EXPECT_FALSE(log_.Has("The excluded process host-warden (400) has ended"));
  engine_->OnIdle();
  EXPECT_TRUE(log_.Has("The excluded process host-warden (400) has ended"));
}

TEST_F(RuleEngineSnapshotTest, WhoeverHasThePidOfAnExcludedProcessIsHeardThoughTheKernelIsBusy) {
  const auto is_heard = [this] {
    heard_.clear();
    auto event = FolderEvent(7, watched_ + "/new");
    event->pid = 400;
    engine_->ProcessEvent(std::move(event));
    return !heard_.empty();
  };
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([&] {
    clock_.Advance(std::chrono::seconds(61));
    engine_->OnIdle();
    EXPECT_FALSE(is_heard()) << "it is the agent";
    processes_.Start(400, 9'000);
    EXPECT_FALSE(is_heard()) << "nobody has looked";
    clock_.Advance(std::chrono::seconds(59));
    engine_->OnIdle();
    EXPECT_FALSE(is_heard());
    clock_.Advance(std::chrono::seconds(2));
    processes_.End(getpid());
    engine_->OnIdle();
    EXPECT_FALSE(is_heard()) << "a procfs that does not know the program says nothing";
    processes_.Start(getpid(), 10);
    engine_->LookAtExclusions();
    engine_->OnIdle();
    EXPECT_TRUE(is_heard());
  }));
  LetGo();
  engine_->OnIdle();
  EXPECT_TRUE(is_heard());
}

TEST_F(RuleEngineSnapshotTest, TheEndOfAnExcludedProcessCountsThoughTheKernelIsBusy) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    auto end = std::make_unique<FakeEvent>();
    end->type = EventType::ProcessExit;
    end->object_type = ObjectType::Process;
    end->pid = 400;
    engine_->ProcessEvent(std::move(end));
    auto event = FolderEvent(7, watched_ + "/new");
    event->pid = 400;
    engine_->ProcessEvent(std::move(event));
    auto rests = std::make_unique<FakeEvent>(EventType::Write, "Write", watched_ + "/file");
    rests->pid = 400;
    engine_->ProcessEvent(std::move(rests));
    Settle();
  }));
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/new", "Write " + watched_ + "/file"}));
}

TEST_F(RuleEngineSnapshotTest, TheProgramItselfStaysExcludedWhateverAnEventSays) {
  auto end = std::make_unique<FakeEvent>();
  end->type = EventType::ProcessExit;
  end->object_type = ObjectType::Process;
  end->pid = getpid();
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([&] {
    engine_->ProcessEvent(std::move(end));
    auto event = FolderEvent(7, watched_ + "/new");
    event->pid = getpid();
    engine_->ProcessEvent(std::move(event));
  }));
  EXPECT_TRUE(heard_.empty());
}

// --- catching up

TEST_F(RuleEngineSnapshotTest, CatchesUpOnePieceACallAndSaysThatMoreIsDue) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    for (int i = 0; i < 5; ++i) TellOfDroppedRule(false);
    EXPECT_FALSE(engine_->OnIdle()) << "nothing can be done now";
  }));
  LetGo();
  const int before = kernel_.OpenCount();
  EXPECT_TRUE(engine_->OnIdle());
  const int one = kernel_.OpenCount() - before;
  ASSERT_GT(one, 0) << "the kernel is asked for the rule";
  while (engine_->OnIdle()) {
  }
  EXPECT_EQ(kernel_.OpenCount() - before, 5 * one);
}

TEST_F(RuleEngineSnapshotTest, AStopCatchesUpForItsTimeOnly) {
  RemoveFolder();
  HoldChange("IOC", {Other()});
  std::filesystem::create_directory(watched_);
  EXPECT_TRUE(DoesNotWait([this] {
    for (int i = 0; i < 5; ++i) Process(EventType::Create, "Create", watched_);
  }));
  LetGo();
  kernel_.refuse_add = [](const SeenRule& /*rule*/) { return EACCES; };
  int looks = 0;
  look_at_ = [&](const internal::WatchedPlace& place) {
    ++looks;
    clock_.Advance(std::chrono::seconds(2));
    return internal::LookAt(place);
  };
  engine_->OnStop(std::chrono::seconds(5));
  EXPECT_EQ(looks, 3);
  engine_->OnIdle();
  EXPECT_EQ(looks, 3) << "what is left at a stop is left";
}

TEST_F(RuleEngineSnapshotTest, WhatCatchingUpFindsAtAStopIsReported) {
  RemoveFolder();
  HoldChange("IOC", {Other()});
  std::filesystem::create_directories(watched_ + "/one");
  EXPECT_TRUE(DoesNotWait([this] { Process(EventType::Create, "Create", watched_); }));
  LetGo();
  heard_.clear();
  engine_->OnStop(std::chrono::seconds(5));
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/one"}));
  EXPECT_EQ(engine_->GetFoundObjects(), 0U);
}

TEST_F(RuleEngineSnapshotTest, AFailureToCatchUpLosesNoOtherEvent) {
  RemoveFolder();
  HoldChange("IOC", {Other()});
  std::filesystem::create_directory(watched_);
  EXPECT_TRUE(DoesNotWait([this] { Process(EventType::Create, "Create", watched_); }));
  LetGo();
  look_at_ = [](const internal::WatchedPlace& /*place*/) -> internal::Sight { throw std::runtime_error("no memory"); };
  heard_.clear();
  Process(EventType::Create, "Create", watched_ + "/new");
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/new"}));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to do what an event means for the rules: no memory"));
}

TEST_F(RuleEngineSnapshotTest, AWordOfTheKernelThatCannotBeJudgedIsCounted) {
  const auto fragile =
      std::make_shared<FakeRule>("rule", ObjectType::Directory, watched_, edr::EventTypes{EventType::Write});
  engine_->AddRules("FIM", {fragile});
  fragile->path_error = "no memory";
  TellOfDroppedRule(false);
  fragile->path_error.clear();
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to do what an event means for the rules: "));
}

TEST_F(RuleEngineSnapshotTest, AWordOfTheKernelThatWasToldEarlyIsNotLostWhenItIsDropped) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    Process(EventType::Create, "Create", watched_);
    for (int i = 0; i < 1'000; ++i) TellOfDroppedRule(true);
  }));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 0U) << "it and the new folder had to go";
  EXPECT_TRUE(DoesNotWait([this] { TellOfDroppedRule(true); }));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 1U);
}

TEST_F(RuleEngineSnapshotTest, AWordOfTheKernelThatWasToldEarlyIsNotLeftAtAStop) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    Process(EventType::Create, "Create", watched_);
    engine_->OnStop(std::chrono::seconds(1));
  }));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 0U);
}

TEST_F(RuleEngineSnapshotTest, AFolderThatCouldNotBeMadeIsNoSignThatTheOldOneWent) {
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    auto event = FolderEvent(7, watched_);
    event->successful = false;
    engine_->ProcessEvent(std::move(event));
  }));
  EXPECT_EQ(heard_, (Ids{"Create " + watched_}));
}

TEST_F(RuleEngineSnapshotTest, AFolderThatIsMadeAnewIsToldBehindItsRemoval) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  const Ids told = {"Delete " + watched_, "Create " + watched_};
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    TellOfDroppedRule(false);  // a rule of the manifest may be several of the kernel's
    std::filesystem::create_directory(watched_);
    Process(EventType::Create, "Create", watched_);
  }));
  EXPECT_EQ(heard_, told);
  LetGo();
  while (engine_->OnIdle()) {
  }
  EXPECT_EQ(heard_, told) << "once is enough";
  EXPECT_TRUE(log_.Has("Rule rule is in force: " + watched_ + " is there now"));
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 0U);
}

TEST_F(RuleEngineSnapshotTest, AFolderThatIsMovedToThePlaceIsToldBehindTheRemovalOfAllBelow) {
  engine_->AddRules("IOC", {FakeRule::Directory("parent", base_, {EventType::Write})});
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    Process(EventType::Create, "Create", watched_ + "/sub");
    Process(EventType::Rename, "Rename", base_, "/elsewhere");
    Process(EventType::Rename, "Rename", "/elsewhere", base_);
  }));
  EXPECT_EQ(heard_.size(), 2U) << "that it went with its parent was told";
  EXPECT_EQ(heard_.front(), "Create " + watched_ + "/sub");
  heard_.clear();
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    Process(EventType::Rename, "Rename", "/elsewhere", base_);
  }));
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
}

TEST_F(RuleEngineSnapshotTest, ARemovalThatACallHasToldOfIsNotToldAgain) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  HoldChange("IOC", {Other()});
  const Ids told = {"Delete " + watched_, "Create " + watched_};
  EXPECT_TRUE(DoesNotWait([this] {
    Process(EventType::Delete, "Delete", watched_);
    TellOfDroppedRule(false);
    TellOfDroppedRule(true);
    std::filesystem::create_directory(watched_);
    Process(EventType::Create, "Create", watched_);
  }));
  EXPECT_EQ(heard_, told);
  LetGo();
  while (engine_->OnIdle()) {
  }
  EXPECT_EQ(heard_, told) << "the removal was in front of the kernel's word";
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEngineSnapshotTest, ARemovalThatWasDoneBeforeTheKernelWasBusyIsNotToldAgain) {
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  Process(EventType::Delete, "Delete", watched_);
  HoldChange("IOC", {Other()});
  const Ids told = {"Delete " + watched_, "Create " + watched_};
  EXPECT_TRUE(DoesNotWait([this] {
    TellOfDroppedRule(false);
    std::filesystem::create_directory(watched_);
    Process(EventType::Create, "Create", watched_);
  }));
  EXPECT_EQ(heard_, told);
}

// --- changes that fail

TEST_F(RuleEngineSnapshotTest, OfAChangeThatFailsMidwayOnlyTheRulesThatHaveComeAreKnown) {
  RuleEngineFixture::Listen("IOC");
  kernel_.refuse_add = [](const SeenRule& rule) -> int {
    if (rule.Key() == "b") throw std::logic_error("no memory");
    return 0;
  };
  edr::EventRuleEngine::Rules rules;
  for (const std::string id : {"a", "b", "c"}) {
    std::filesystem::create_directory(base_ + "/" + id);
    rules.push_back(FakeRule::Directory(id, base_ + "/" + id, {EventType::Write}));
  }
  RuleEngineFixture::watched_.clear();
  EXPECT_THROW(engine_->AddRules("IOC", rules), std::logic_error);
  engine_->ProcessEvent(FolderEvent(1, base_ + "/a/new"));
  engine_->ProcessEvent(FolderEvent(3, base_ + "/c/new"));
  EXPECT_EQ(heard_, (Ids{"IOC a,:1"}));
  EXPECT_EQ(RuleEngineFixture::watched_.size(), 3U) << "these two and the folder of the other tag";
}

TEST_F(RuleEngineSnapshotTest, ExclusionsThatFailKeepNoOwnerFromComingBack) {
  kernel_.refuse_add = [](const SeenRule& rule) -> int {
    if (rule.Key().starts_with("ostrel_")) throw std::logic_error("no memory");
    return 0;
  };
  engine_->RegisterEventHandlers(
      "FIM", [this](const Ids&, const edr::Event& event) { heard_.push_back(event.GetFile()->GetPath()); },
      [this] { engine_->AddRules("FIM", {rule_}); });
  engine_->Invalidate();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to add exclusion rules: no memory"));
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  Process(EventType::Create, "Create", watched_ + "/new");
  EXPECT_EQ(heard_, (Ids{watched_ + "/new"}));
  kernel_.refuse_add = nullptr;
  clock_.Advance(std::chrono::seconds(61));
  engine_->OnIdle();
  EXPECT_EQ(Exclusions(), kAllExclusions) << "the next look adds them";
}

TEST_F(RuleEngineSnapshotTest, TellsHowManyFoundObjectsWaitForTheEventThread) {
  RemoveFolder();
  std::filesystem::create_directories(watched_ + "/one");
  std::filesystem::create_directories(watched_ + "/two");
  LookForAMinute();
  EXPECT_EQ(engine_->GetFoundObjects(), 2U) << "what is in it";
  EXPECT_EQ(engine_->GetFoundBytes(), 2 * edr::kOrdinaryEventBytes);
  engine_->OnIdle();
  EXPECT_EQ(engine_->GetFoundObjects(), 0U);
  EXPECT_EQ(engine_->GetFoundBytes(), 0U);
}

}  // namespace
}  // namespace zagent::audit
