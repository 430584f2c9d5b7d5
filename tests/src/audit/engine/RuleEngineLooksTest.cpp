#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/Gate.h"
#include "tests/src/audit/engine/RuleEnginePathsFixture.h"

namespace zagent::audit {
namespace {

using edr::EventType;
using fakes::FakeRule;

// What only a look at the disk tells: an object that was swapped where nobody watches, a link in the place of a folder,
// and words of the kernel that come late.
class RuleEngineLooksTest : public RuleEnginePathsFixture {
 protected:
  // The folder is swapped with its parent, and nobody hears of it.
  void SwapTheParent() {
    std::filesystem::create_directories(below_);
    engine_->AddRules("FIM", {FakeRule::Directory("below", below_, {EventType::Write})});
    std::filesystem::rename(base_ + "/parent", base_ + "/away");
    std::filesystem::create_directories(below_ + "/new");
    kernel_.calls.clear();
  }
  [[nodiscard]] Ids PathsOf(const std::string& key) const {
    Ids paths;
    for (const fakes::SeenRule& rule : kernel_.RulesWithKey(key)) paths.push_back(rule.Path());
    return paths;
  }
  // In the place of the watched folder, which is removed.
  void PutALink(const std::string& target) {
    RemoveFolder();
    std::filesystem::create_directory_symlink(target, watched_);
    heard_.clear();
    engine_->LookAtPaths();
  }

  const std::string below_ = base_ + "/parent/sub", target_ = base_ + "/target";
};

TEST_F(RuleEngineLooksTest, NoticesAParentThatWasSwappedWhereNobodyWatches) {
  SwapTheParent();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete below", "add below"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule below is not in force any more: " + below_ + " is gone"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule below is in force: " + below_ + " is there now"));
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + below_ + "/new"}));
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_TRUE(kernel_.calls.empty()) << "once is enough";
}

TEST_F(RuleEngineLooksTest, NoticesAParentThatWasRenamedAndWaitsForItsPath) {
  SwapTheParent();
  std::filesystem::remove_all(base_ + "/parent");
  LookForAMinute();
  EXPECT_TRUE(IsWaiting());
  std::filesystem::rename(base_ + "/away", base_ + "/parent");
  kernel_.calls.clear();
  engine_->LookAtPaths();
  EXPECT_FALSE(IsWaiting());
  EXPECT_EQ(kernel_.calls, (Ids{"add below"})) << "what is right is not taken away first";
  engine_->OnIdle();
  EXPECT_TRUE(heard_.empty()) << "it was watched all the time";
}

TEST_F(RuleEngineLooksTest, TakesAllRulesOfOnePathAwayBeforeOneIsAddedAnew) {
  Listen();
  std::filesystem::create_directories(below_);
  engine_->AddRules("FIM", {FakeRule::Directory("a", below_, {EventType::Write, EventType::Read})});
  engine_->AddRules("IOC", {FakeRule::Directory("b", below_ + "/", {EventType::Write})});
  std::filesystem::rename(base_ + "/parent", base_ + "/away");
  std::filesystem::create_directories(below_);
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete a", "delete a", "delete b", "add a", "add a", "add b"}))
      << "as long as one is left the next one holds on to what that one watches";
}

TEST_F(RuleEngineLooksTest, NoticesAFileWhoseFolderWasSwapped) {
  std::filesystem::create_directories(below_);
  engine_->AddRules("FIM", {FakeRule::File("file", below_ + "/file", {EventType::Write})});
  std::filesystem::rename(base_ + "/parent", base_ + "/away");
  std::filesystem::create_directories(below_);
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete file", "add file"}));
}

TEST_F(RuleEngineLooksTest, LooksAtEachOfManyPlacesOnceAMinute) {
  edr::EventRuleEngine::Rules rules;
  for (int i = 0; i < 90; ++i) {
    rules.push_back(FakeRule::File("f" + std::to_string(i), watched_ + "/" + std::to_string(i), {EventType::Write}));
  }
  engine_->AddRules("FIM", rules);
  std::multiset<std::string> seen;
  std::size_t most = 0;
  look_at_ = [&](const internal::WatchedPlace& place) {
    seen.insert(place.path);
    return internal::LookAt(place);
  };
  for (int second = 0; second < 60; ++second) {
    const std::size_t before = seen.size();
    engine_->LookAtPaths();
    most = std::max(most, seen.size() - before);
  }
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), 90U);
  EXPECT_EQ(most, 2U);
}

TEST_F(RuleEngineLooksTest, SaysNothingOfAPlaceThatTheFileSystemDoesNotAnswerFor) {
  look_at_ = [](const internal::WatchedPlace& place) {
    internal::Sight sight;
    sight.place = place;
    return sight;
  };
  LookForAMinute();
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEngineLooksTest, AFileSystemThatDoesNotAnswerStopsNoEvent) {
  fakes::Gate asked;
  fakes::Gate answer;
  look_at_ = [&](const internal::WatchedPlace& place) {
    if (place.path == watched_) {
      asked.Open();
      static_cast<void>(answer.Await());
    }
    return internal::LookAt(place);
  };
  std::thread schedule([this] { engine_->LookAtPaths(); });
  ASSERT_TRUE(asked.Await());
  Process(EventType::Create, "Create", watched_ + "/sub");
  engine_->AddRules("IOC", {FakeRule::Directory("other", base_, {EventType::Write})});
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
  answer.Open();
  schedule.join();
}

TEST_F(RuleEngineLooksTest, NewRulesThatWaitForTheDiskStopNoEvent) {
  fakes::Gate asked;
  fakes::Gate answer;
  look_at_ = [&](const internal::WatchedPlace& place) {
    asked.Open();
    static_cast<void>(answer.Await());
    return internal::LookAt(place);
  };
  std::thread adding([this] { engine_->AddRules("IOC", {FakeRule::Directory("other", base_, {EventType::Write})}); });
  ASSERT_TRUE(asked.Await());
  Process(EventType::Create, "Create", watched_ + "/sub");
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));
  answer.Open();
  adding.join();
}

TEST_F(RuleEngineLooksTest, NoticesWhatTookThePlaceWhileTheRuleWasAdded) {
  std::filesystem::create_directories(below_);
  look_at_ = [this](const internal::WatchedPlace& place) {
    const internal::Sight sight = internal::LookAt(place);
    std::filesystem::rename(base_ + "/parent", base_ + "/away");
    std::filesystem::create_directories(below_);
    return sight;
  };
  engine_->AddRules("FIM", {FakeRule::Directory("below", below_, {EventType::Write})});
  look_at_ = internal::LookAt;
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete below", "add below"})) << "nobody knows which of the two the kernel took";
}

TEST_F(RuleEngineLooksTest, RepeatsAFirstLookThatFailed) {
  std::filesystem::create_directories(below_);
  look_at_ = [](const internal::WatchedPlace& place) { return internal::Sight{.place = place, .object = {}}; };
  engine_->AddRules("FIM", {FakeRule::Directory("below", below_, {EventType::Write})});
  look_at_ = internal::LookAt;
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_TRUE(kernel_.calls.empty());
  std::filesystem::rename(base_ + "/parent", base_ + "/away");
  std::filesystem::create_directories(below_);
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete below", "add below"}));
}

TEST_F(RuleEngineLooksTest, TheFirstLookAtAFolderThatIsGoneDoesNotMakeItTheOldOne) {
  look_at_ = [](const internal::WatchedPlace& place) { return internal::Sight{.place = place, .object = {}}; };
  engine_->AddRules("FIM", {});
  engine_->AddRules("FIM", {rule_});
  std::filesystem::rename(watched_, base_ + "/away");
  Process(EventType::Rename, "Rename", watched_, base_ + "/away");
  std::filesystem::create_directory(watched_);
  look_at_ = internal::LookAt;
  kernel_.calls.clear();
  engine_->LookAtPaths();
  EXPECT_EQ(kernel_.calls, (Ids{"delete rule", "add rule"})) << "the kernel's rule went along";
}

TEST_F(RuleEngineLooksTest, FollowsALinkOnTheWayToAFile) {
  std::filesystem::create_directories(target_);
  std::filesystem::create_directory_symlink(target_, base_ + "/way");
  engine_->AddRules("FIM", {FakeRule::File("file", base_ + "/way/file", {EventType::Write})});
  std::filesystem::rename(target_, base_ + "/away");
  std::filesystem::create_directories(target_);
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete file", "add file"}));
}

// --- an inode number that is given again

TEST_F(RuleEngineLooksTest, NoticesAFolderThatWasMadeAgainUnderTheSameNumber) {
  std::int64_t born = 1;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.born = born;
    return sight;
  };
  engine_->AddRules("FIM", {});
  engine_->AddRules("FIM", {rule_});
  LookForAMinute();
  EXPECT_FALSE(IsWaiting());

  std::filesystem::create_directory(watched_ + "/new");
  DropKernelRules();  // and the record of it is lost
  LookForAMinute();
  EXPECT_TRUE(InstalledIds().empty()) << "the birth is the same: no reason to ask";
  born = 2;
  LookForAMinute();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/new"}));
}

TEST_F(RuleEngineLooksTest, AsksTheKernelWhereNobodyKnowsWhenAFolderWasMade) {
  look_at_ = [](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.born = 0;
    return sight;
  };
  LookForAMinute();
  EXPECT_FALSE(IsWaiting());
  DropKernelRules();
  kernel_.open_error = EMFILE;
  LookForAMinute();
  EXPECT_FALSE(IsWaiting()) << "who cannot ask gives nothing up";
  kernel_.open_error = 0;
  LookForAMinute();
  EXPECT_TRUE(log_.Has("Rule rule is not in force any more"));
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

// A file system that is put together of others tells another birth after the first change.
TEST_F(RuleEngineLooksTest, ARuleThatTheKernelHasStillWatchesTheSameFolder) {
  std::int64_t born = 1;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.born = born;
    return sight;
  };
  for (; born < 3; ++born) LookForAMinute();
  EXPECT_FALSE(log_.Has("is not in force any more"));
  kernel_.calls.clear();
  born = 2;
  LookForAMinute();
  EXPECT_TRUE(kernel_.calls.empty()) << "it is asked once";
}

TEST_F(RuleEngineLooksTest, ARuleThatComesAnewFindsTheSameFolderWhateverItsBirth) {
  std::int64_t born = 1;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.born = born;
    return sight;
  };
  const auto rule_for = [this](EventType type) { return FakeRule::Directory("rule", watched_, {type}); };
  engine_->AddRules("FIM", {});
  engine_->AddRules("FIM", {rule_});
  std::filesystem::create_directory(watched_ + "/old");
  for (const std::int64_t next : {2, 0, 3}) {
    born = next;
    engine_->AddRules("FIM", {rule_for(next == 2 ? EventType::Read : EventType::Write)});
    engine_->Invalidate();
    ++born;
    engine_->AddRules("FIM", {rule_for(EventType::Rename)});
  }
  engine_->OnIdle();
  EXPECT_TRUE(heard_.empty()) << "the kernel had the rule to the end";
  DropKernelRules();  // with the folder, of which no record comes
  ++born;
  engine_->AddRules("FIM", {rule_for(EventType::Read)});
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/old"})) << "another folder under the same number";
}

TEST_F(RuleEngineLooksTest, ARuleThatComesAnewDoesNotTakeAnUnknownBirthForAnotherFolder) {
  std::int64_t born = 1;
  look_at_ = [&](const internal::WatchedPlace& place) {
    internal::Sight sight = internal::LookAt(place);
    sight.object.born = born;
    return sight;
  };
  engine_->AddRules("FIM", {});
  engine_->AddRules("FIM", {rule_});
  std::filesystem::create_directory(watched_ + "/old");
  DropKernelRules();
  born = 0;
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Read})});
  engine_->OnIdle();
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineLooksTest, WhatWasSeenCountsOnlyForTheRulesThatThereAre) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  look_at_ = [this](const internal::WatchedPlace& place) {
    engine_->AddRules("FIM", {});
    return internal::LookAt(place);
  };
  engine_->LookAtPaths();
  EXPECT_TRUE(InstalledIds().empty());
}

// --- late words

TEST_F(RuleEngineLooksTest, ALateWordOfARemovalDoublesNothing) {
  std::filesystem::create_directory(watched_ + "/old");
  DropKernelRules();
  // The rules come anew before the records of the removal are read.
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  ASSERT_EQ(InstalledIds(), (Ids{"rule"}));
  TellOfDroppedRule(false);
  EXPECT_TRUE(heard_.empty());
  EXPECT_FALSE(IsWaiting());
  engine_->LookAtPaths();
  Settle();
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEngineLooksTest, ALateEventOfARemovalDoublesNothing) {
  std::filesystem::create_directory(watched_ + "/old");
  DropKernelRules();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  kernel_.calls.clear();
  Process(EventType::Delete, "Delete", watched_);
  engine_->LookAtPaths();
  Settle();
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
  EXPECT_EQ(kernel_.calls, (Ids{"add rule"})) << "which is there already";
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEngineLooksTest, BelievesTheKernelsWordWhenItCannotBeAsked) {
  DropKernelRules();
  kernel_.open_error = EMFILE;
  TellOfDroppedRule(false);
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
  EXPECT_TRUE(IsWaiting());
}

// --- links

TEST_F(RuleEngineLooksTest, ALinkIsNotLookedAtAnewForWhatTheKernelSaysOfAnotherFolder) {
  std::filesystem::create_directory(target_);
  PutALink(target_);
  ASSERT_EQ(InstalledIds().size(), 2U) << "for the link and for the folder that it leads to";
  kernel_.calls.clear();
  TellOfDroppedRule(false);
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"add rule"})) << "which asks whether it is there still";
}

TEST_F(RuleEngineLooksTest, WatchesALinkInThePlaceOfAFolderAndWhereItLeads) {
  std::filesystem::create_directories(target_ + "/sub");
  PutALink(target_);
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION,
                       "Rule rule is in force at " + target_ + ", too: " + watched_ + " is a link"));
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/sub"}));

  heard_.clear();
  auto event = FolderEvent(1, target_ + "/made");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"Create " + target_ + "/made"}));
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineLooksTest, FollowsALinkThatIsTurned) {
  std::filesystem::create_directories(target_ + "2");
  std::filesystem::create_directories(target_);
  PutALink(target_);
  std::filesystem::create_directory_symlink(target_ + "2", base_ + "/next");
  std::filesystem::rename(base_ + "/next", watched_);
  LookForAMinute();
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_ + "2"}));
}

TEST_F(RuleEngineLooksTest, StaysWithTheFolderThatALinkLeadsToWhenItIsMadeAgain) {
  std::filesystem::create_directories(target_);
  PutALink(target_);
  std::filesystem::rename(target_, base_ + "/away");
  std::filesystem::create_directory(target_);
  kernel_.calls.clear();
  LookForAMinute();
  EXPECT_EQ(kernel_.calls, (Ids{"delete rule", "delete rule", "add rule", "add rule"}));
}

TEST_F(RuleEngineLooksTest, WatchesALinkThatLeadsNowhereAlone) {
  PutALink(base_ + "/nowhere");
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_}));
  EXPECT_FALSE(IsWaiting());
}

TEST_F(RuleEngineLooksTest, LeavesTheTargetToTheRuleThatStandsThere) {
  std::filesystem::create_directories(target_);
  engine_->AddRules("FIM", {rule_, FakeRule::Directory("there", target_, {EventType::Write})});
  PutALink(target_);
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_}));
  LookForAMinute();
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_}));
}

TEST_F(RuleEngineLooksTest, KeepsTheTargetWhenTheSameRulesComeAgain) {
  std::filesystem::create_directories(target_);
  PutALink(target_);
  kernel_.calls.clear();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write})});
  EXPECT_TRUE(kernel_.calls.empty());
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
}

TEST_F(RuleEngineLooksTest, KeepsTheTargetWhenTheActionsOfTheRuleChange) {
  std::filesystem::create_directories(target_);
  PutALink(target_);
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Write, EventType::AttributeChange})});
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
  for (const fakes::SeenRule& rule : kernel_.RulesWithKey("rule")) {
    EXPECT_EQ(rule.Permissions(), static_cast<std::uint32_t>(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR)) << rule.Path();
  }
}

TEST_F(RuleEngineLooksTest, KeepsTheTargetOverAnInvalidation) {
  std::filesystem::create_directories(target_);
  PutALink(target_);
  engine_->Invalidate();
  EXPECT_TRUE(InstalledIds().empty());
  engine_->AddRules("FIM", {rule_});
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
  EXPECT_FALSE(IsWaiting());
  engine_->AddRules("FIM", {});
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineLooksTest, TakesTheTargetOverFromARuleThatGoes) {
  std::filesystem::create_directories(target_);
  const Rule there = FakeRule::Directory("there", target_, {EventType::Write});
  engine_->AddRules("FIM", {rule_, there});
  PutALink(target_);
  engine_->AddRules("FIM", {there, FakeRule::Directory("rule", watched_, {EventType::Read})});
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_})) << "whichever of the two comes first";
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_, {EventType::Read})});
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
}

TEST_F(RuleEngineLooksTest, TriesATargetAgainThatTheKernelRefusesWithTheNewRules) {
  std::filesystem::create_directories(target_);
  PutALink(target_);
  engine_->Invalidate();
  kernel_.refuse_add = [this](const fakes::SeenRule& rule) { return rule.Path() == target_ ? ENOMEM : 0; };
  engine_->AddRules("FIM", {rule_});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to renew rule rule: Failed to add rule to audit subsystem"));
  EXPECT_TRUE(IsWaiting());
  const long told = RenewalErrors();
  engine_->LookAtPaths();
  EXPECT_EQ(RenewalErrors(), told) << "once is enough";
  kernel_.refuse_add = nullptr;
  engine_->LookAtPaths();
  EXPECT_EQ(PathsOf("rule"), (Ids{watched_, target_}));
  EXPECT_FALSE(IsWaiting());
}

}  // namespace
}  // namespace zagent::audit
