#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/events/RuleRemovedEvent.h"
#include "src/edr/process/EventBytes.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/src/audit/engine/RuleEnginePathsFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;

// A watched folder that is removed, renamed, or made again.
class RuleEnginePathsTest : public RuleEnginePathsFixture {};

TEST_F(RuleEnginePathsTest, ReportsTheRemovalItselfOnce) {
  RemoveFolder();
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule rule is not in force any more: " + watched_ + " is gone"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 0 of 1"));
  EXPECT_TRUE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, ReportsAFolderThatWasUnmountedThoughNoCallTellsOfIt) {
  DropKernelRules();
  TellOfDroppedRule(false);
  TellOfDroppedRule(false);  // a rule of the manifest may be several of the kernel's
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
}

TEST_F(RuleEnginePathsTest, IsNotConcernedByRulesOfOthers) {
  fakes::AuditRecords records;
  records.Add(internal::record_type::kConfigChange,
              {{"op", "remove_rule"}, {"dir", "/srv/x"}, {"key", "\"theirs\""}, {"list", "4"}});
  engine_->ProcessEvent(std::make_unique<internal::RuleRemovedEvent>(records));
  EXPECT_TRUE(heard_.empty());
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, WatchesTheFolderAgainThatIsMadeAgain) {
  RemoveFolder();
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
  std::filesystem::create_directory(watched_);
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule rule is in force: " + watched_ + " is there now"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 1 of 1"));
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, ReportsWhatWasMadeBeforeTheRuleWasThere) {
  RemoveFolder();
  heard_.clear();
  std::filesystem::create_directories(watched_ + "/sub/below");
  std::filesystem::create_symlink("nowhere", watched_ + "/link");
  engine_->LookAtPaths();
  EXPECT_TRUE(heard_.empty()) << "not on the thread of a schedule";
  engine_->OnIdle();
  Settle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/link", "Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, WatchesItAtOnceWhereItsMakingIsHeard) {
  RemoveFolder();
  std::filesystem::create_directories(watched_ + "/sub");
  heard_.clear();
  Process(EventType::Create, "Create", watched_);
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_, "Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, WatchesANewFolderInThePlaceOfARenamedOne) {
  std::filesystem::rename(watched_, base_ + "/away");
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  EXPECT_EQ(InstalledIds(), (Ids{"rule"})) << "it went along";
  EXPECT_TRUE(IsWaiting());
  std::filesystem::create_directories(watched_ + "/sub");
  kernel_.calls.clear();
  engine_->LookAtPaths();
  EXPECT_EQ(kernel_.calls, (Ids{"delete rule", "add rule"})) << "to the kernel they are one";
  heard_.clear();
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, FindsNothingNewInAFolderThatWasOnlyAway) {
  std::filesystem::create_directory(watched_ + "/old");
  std::filesystem::rename(watched_, base_ + "/away");
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  std::filesystem::rename(base_ + "/away", watched_);
  heard_.clear();
  Process(EventType::Rename, "Rename", base_ + "/away", watched_);
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_FALSE(IsWaiting());
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Rename " + base_ + "/away"}));
}

TEST_F(RuleEnginePathsTest, GivesUpTheRulesBelowAFolderThatIsRenamed) {
  std::filesystem::create_directories(base_ + "/parent/sub");
  engine_->AddRules("FIM", {FakeRule::Directory("below", base_ + "/parent/sub", {EventType::Write})});
  std::filesystem::rename(base_ + "/parent", base_ + "/away");
  Process(EventType::Rename, "Rename", base_ + "/parent", base_ + "/away");
  EXPECT_TRUE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, IsNotMovedByWhatFailed) {
  auto event = std::make_unique<FakeEvent>(EventType::Delete, "Delete", watched_);
  event->object_type = ObjectType::Directory;
  event->successful = false;
  engine_->ProcessEvent(std::move(event));
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, WatchesAFileAgainWhoseFolderCameBack) {
  engine_->AddRules("FIM", {FakeRule::File("rule", watched_ + "/file", {EventType::Write})});
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  std::filesystem::create_symlink("nowhere", watched_ + "/file");
  heard_.clear();
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  engine_->OnIdle();
  Settle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/file"}));
}

TEST_F(RuleEnginePathsTest, DoesNotLookForAPathThatWasNeverThereByItself) {
  engine_->AddRules("FIM", {FakeRule::Directory("never", base_ + "/never", {EventType::Write})});
  std::filesystem::create_directory(base_ + "/never");
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEnginePathsTest, LooksForItWhereCoverageIsExtended) {
  engine_.reset();
  extended_coverage_ = true;
  Start();
  Listen();
  engine_->AddRules("FIM", {FakeRule::Directory("never", base_ + "/never", {EventType::Rename})});
  EXPECT_TRUE(IsWaiting());
  std::filesystem::create_directory(base_ + "/never");
  engine_->LookAtPaths();
  EXPECT_FALSE(InstalledIds().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule never is in force: " + base_ + "/never is there now"));
}

TEST_F(RuleEnginePathsTest, TellsOnceThatThereAreNowPathsToLookAt) {
  EXPECT_EQ(told_to_look_, 1);
  EXPECT_TRUE(engine_->HasPaths());
  RemoveFolder();
  engine_->AddRules("IOC", {FakeRule::File("file", base_ + "/file", {EventType::Write})});
  EXPECT_EQ(told_to_look_, 1);
  engine_->AddRules("IOC", {});
  engine_->AddRules("FIM", {});
  EXPECT_FALSE(engine_->HasPaths());
  engine_->AddRules("FIM", {rule_});
  EXPECT_EQ(told_to_look_, 2);
}

TEST_F(RuleEnginePathsTest, KeepsLookingWhenTheKernelCannotBeAsked) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.open_error = EMFILE;
  engine_->LookAtPaths();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to put rules into force again: "));
  kernel_.open_error = 0;
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEnginePathsTest, APassingRefusalDoesNotEndARule) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.refuse_add = [](const fakes::SeenRule& rule) { return rule.Key() == "rule" ? ENOTDIR : 0; };
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_TRUE(IsWaiting());
  kernel_.refuse_add = nullptr;
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEnginePathsTest, TellsARefusalThatLastsOnce) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  RuleEngineFixture::watched_.clear();
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOSPC; };
  for (int looks = 0; looks < 3; ++looks) engine_->LookAtPaths();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to renew rule rule: Failed to add rule to audit subsystem"));
  EXPECT_EQ(RenewalErrors(), 2);
  EXPECT_TRUE(RuleEngineFixture::watched_.empty()) << "and lets nobody look through the folders for it";

  kernel_.refuse_add = nullptr;
  engine_->LookAtPaths();
  EXPECT_EQ(RuleEngineFixture::watched_.size(), 1U);
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOSPC; };
  engine_->LookAtPaths();
  EXPECT_EQ(RenewalErrors(), 4) << "this is news";
}

TEST_F(RuleEnginePathsTest, TellsOneLookToAllRulesOfAPlace) {
  engine_->AddRules("FIM", {rule_, FakeRule::Directory("twin", watched_ + "/", {EventType::Write})});
  RemoveFolder();
  heard_.clear();
  std::filesystem::create_directories(watched_ + "/sub");
  engine_->LookAtPaths();
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, KeepsSoManyFoundObjectsUntilTheyAreTakenAndTellsIt) {
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  for (int entry = 0; entry < 1'001; ++entry) std::filesystem::create_directory(watched_ + "/" + std::to_string(entry));
  std::uint64_t looks = 0;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.object.inode = ++looks;  // another folder each time
    return sight;
  };
  while (looks < 13) engine_->LookAtPaths();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Only the first 1000 entries of " + watched_ + " were looked at"));
  EXPECT_EQ(log_.Count("RuleEngine: No room to report what was found at "), 1) << "one line until they are taken";
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 3'000U);
  EXPECT_TRUE(engine_->OnIdle()) << "more is due";
  EXPECT_EQ(heard_.size(), 100U) << "a stop waits for no more of them";
  Process(EventType::Create, "Create", watched_ + "/sub");
  EXPECT_EQ(heard_.size(), 201U);
  while (engine_->OnIdle()) {
  }
  EXPECT_EQ(heard_.size(), 10'001U);
  while (looks < 24) engine_->LookAtPaths();
  EXPECT_EQ(log_.Count("RuleEngine: No room to report what was found at "), 2);
}

TEST_F(RuleEnginePathsTest, KeepsNoMoreBytesOfFoundObjectsThanSoManyOrdinaryOnesHave) {
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  std::string deep = watched_;
  for (int level = 0; level < 14; ++level) deep += "/" + std::string(240, 'd');
  for (int entry = 0; entry < 1'000; ++entry) std::filesystem::create_directories(deep + "/" + std::to_string(entry));
  engine_->AddRules("FIM", {FakeRule::Directory("deep", deep, {EventType::Write})});
  std::uint64_t looks = 0;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.object.inode = ++looks;
    return sight;
  };
  while (looks < 3) engine_->LookAtPaths();
  EXPECT_GE(engine_->GetFoundBytes(), 10'000 * edr::kOrdinaryEventBytes);
  EXPECT_LE(engine_->GetFoundBytes(), 10'010 * edr::kOrdinaryEventBytes);
  EXPECT_LT(engine_->GetFoundObjects(), 2'000U);
  EXPECT_EQ(engine_->GetFoundObjects() + counters_.Get(IntakeCounters::Reason::NotProcessed), 3'000U);
  EXPECT_EQ(log_.Count("RuleEngine: No room to report what was found at "), 1);
}

TEST_F(RuleEnginePathsTest, ReportsWhatItFoundAtTheEndOrCountsIt) {
  const auto find = [this](int entries) {
    RemoveFolder();
    for (int entry = 0; entry < entries; ++entry) {
      std::filesystem::create_directories(watched_ + "/" + std::to_string(entry));
    }
    heard_.clear();
    engine_->LookAtPaths();
  };
  find(250);
  engine_->OnStop(std::chrono::seconds(5));
  EXPECT_EQ(heard_.size(), 250U);
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 0U);
  find(250);
  engine_->OnStop(std::chrono::seconds(0));
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 250U);
  EXPECT_EQ(engine_->GetFoundBytes(), 0U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "RuleEngine: No time left to report 250 objects that were found"));
}

TEST_F(RuleEnginePathsTest, WhatRestsAtAStopHasTheTimeThatFoundObjectsLeave) {
  for (int i = 0; i < 3; ++i) {
    engine_->ProcessEvent(std::make_unique<FakeEvent>(EventType::Write, "Write", watched_ + "/file"));
  }
  RemoveFolder();
  std::filesystem::create_directories(watched_ + "/later");
  engine_->LookAtPaths();
  ASSERT_EQ(engine_->GetFoundObjects(), 1U);
  heard_.clear();
  engine_->RegisterEventHandlers(
      "FIM",
      [this](const Ids&, const edr::Event& event) {
        heard_.push_back(event.GetAction());
        clock_.Advance(event.GetAction() == "Create" ? 4s : 1s);
      },
      [] {});
  engine_->OnStop(5s);
  EXPECT_EQ(heard_, (Ids{"Create", "Write"}));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::LeftAtStop), 2U);
}

TEST_F(RuleEnginePathsTest, WhatTheKernelSaysOfOneFolderHoldsForThoseBelow) {
  std::filesystem::create_directory(watched_ + "/sub");
  engine_->AddRules("FIM", {rule_, FakeRule::Directory("below", watched_ + "/sub", {EventType::Write})});
  std::filesystem::remove_all(watched_);
  DropKernelRules();
  TellOfDroppedRule(false);
  EXPECT_TRUE(log_.Has("Rules in force: 0 of 2")) << log_.All();
}

// --- rules that come anew while they wait

TEST_F(RuleEnginePathsTest, TheNextRuleOfAKeyWaitsForThePathThatTheLastOneWaitedFor) {
  RemoveFolder();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_ + "/", {EventType::Rename})});
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  EXPECT_TRUE(IsWaiting());
  std::filesystem::create_directories(watched_ + "/sub");
  heard_.clear();
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, WaitsWhereAFileStandsOnTheWayAsWhereNothingDoes) {
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOTDIR; };
  RemoveFolder();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Rename})});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule rule is not in force: there is no " + watched_));
  kernel_.refuse_add = nullptr;
  std::filesystem::create_directory(watched_);
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEnginePathsTest, ARuleOfAnotherPathWaitsForNothing) {
  RemoveFolder();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", base_ + "/other", {EventType::Write})});
  engine_->AddRules("FIM", {rule_});
  std::filesystem::create_directory(watched_);
  std::filesystem::create_directory(base_ + "/other");
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEnginePathsTest, WaitsOverAnInvalidation) {
  RemoveFolder();
  for (int times = 0; times < 2; ++times) engine_->Invalidate();
  engine_->AddRules("FIM", {rule_});
  EXPECT_TRUE(IsWaiting());
  std::filesystem::create_directory(watched_);
  engine_->LookAtPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEnginePathsTest, AwaitsWhatWentWhileRecordsWereLost) {
  std::filesystem::remove_all(watched_);
  engine_->Invalidate();
  engine_->AddRules("FIM", {rule_});
  EXPECT_TRUE(IsWaiting());
  std::filesystem::create_directories(watched_ + "/sub");
  engine_->LookAtPaths();
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, ReportsWhatWasMadeBeforeTheNextRuleOfItsKeyWasThere) {
  RemoveFolder();
  std::filesystem::create_directories(watched_ + "/sub/below");
  heard_.clear();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule rule is in force: " + watched_ + " is there now"));
  EXPECT_TRUE(heard_.empty()) << "not on the thread that adds rules";
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, ReportsAFolderThatWasSwappedBeforeItsNextRuleCame) {
  std::filesystem::rename(watched_, base_ + "/away");
  std::filesystem::create_directories(watched_ + "/sub");
  engine_->Invalidate();
  engine_->AddRules("FIM", {rule_});
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
}

TEST_F(RuleEnginePathsTest, ARuleThatComesAnewForTheSameFolderFindsNothingNew) {
  std::filesystem::create_directory(watched_ + "/old");
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Rename, EventType::AttributeChange})});
  engine_->Invalidate();
  engine_->AddRules("FIM", {rule_});
  // Away and back, with the rule of the kernel.
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  heard_.clear();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  engine_->OnIdle();
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEnginePathsTest, ARuleThatWaitsComesIntoForceWithTheNextSet) {
  std::filesystem::rename(watched_, base_ + "/away");
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  std::filesystem::create_directory(watched_);
  kernel_.calls.clear();
  engine_->AddRules("FIM", {rule_});
  EXPECT_FALSE(IsWaiting());
  EXPECT_EQ(kernel_.calls, (Ids{"delete rule", "delete rule", "add rule"}))
      << "the one that went along is not this one";
}

TEST_F(RuleEnginePathsTest, KeepsNoRuleOfAnotherTagThatWentAlong) {
  engine_->AddRules("IOC", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  std::filesystem::rename(watched_, base_ + "/away");
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  std::filesystem::create_directory(watched_);
  kernel_.calls.clear();
  engine_->AddRules("FIM", {rule_});
  ASSERT_FALSE(kernel_.calls.empty());
  EXPECT_EQ(kernel_.calls.front(), "delete rule");
  engine_->LookAtPaths();
  EXPECT_FALSE(IsWaiting());
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEnginePathsTest, ARuleThatIsDroppedKnowsNothingWhenItComesBack) {
  RemoveFolder();
  engine_->AddRules("FIM", {});
  engine_->AddRules("FIM", {rule_});
  std::filesystem::create_directory(watched_);
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEnginePathsTest, ForgetsWhatARuleWaitedForThatIsReplaced) {
  RemoveFolder();
  engine_->AddRules("FIM", {});
  EXPECT_FALSE(IsWaiting());
  EXPECT_TRUE(log_.Has("Rules in force: 0 of 0"));
}

}  // namespace
}  // namespace zagent::audit
