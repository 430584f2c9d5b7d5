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
#include "src/audit/rules/AuditSocket.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;

// A watched folder that is removed, renamed, or made again.
class RuleEnginePathsTest : public RuleEngineFixture {
 protected:
  RuleEnginePathsTest() {
    std::filesystem::create_directory(watched_);
    Listen();
    engine_->AddRules("FIM", {rule_});
  }

  void Listen() {
    engine_->RegisterEventHandlers(
        "FIM",
        [this](const Ids&, const edr::Event& event) {
          heard_.push_back(event.GetAction() + " " + event.GetFile()->GetPath());
        },
        [] {});
  }
  // As the kernel does when the folder goes.
  void DropKernelRules() {
    internal::AuditSocket socket(kernel_, "Test");
    for (internal::AuditRule& rule : socket.GetRulesFromAudit()) {
      if (rule.GetKey() == "rule") socket.Delete(rule);
    }
  }
  void TellOfDroppedRule(bool by_call) {
    fakes::AuditRecords records;
    records.Add(internal::record_type::kConfigChange,
                {{"op", "remove_rule"}, {"dir", watched_}, {"key", "\"rule\""}, {"list", "4"}, {"res", "1"}});
    if (by_call) records.Syscall(84);
    engine_->ProcessEvent(std::make_unique<internal::RuleRemovedEvent>(records));
  }
  void Process(EventType type, const std::string& action, const std::string& path, const std::string& new_path = "") {
    auto event = std::make_unique<FakeEvent>(type, action, path);
    event->object_type = ObjectType::Directory;
    if (!new_path.empty()) event->new_file = common::ImageInfo(new_path);
    engine_->ProcessEvent(std::move(event));
  }
  // The folder and the kernel's rule go, and the records tell of both.
  void RemoveFolder() {
    std::filesystem::remove_all(watched_);
    DropKernelRules();
    TellOfDroppedRule(true);
    Process(EventType::Delete, "Delete", watched_);
  }
  // Errors in the log, the kernel's reason and the rule's.
  [[nodiscard]] long RenewalErrors() const {
    const std::vector<Poco::Message> lines = log_.Lines();
    return std::count_if(lines.begin(), lines.end(), [](const Poco::Message& line) {
      return line.getPriority() == Poco::Message::PRIO_ERROR &&
             line.getText().find("Failed to add rule to audit subsystem") != std::string::npos;
    });
  }
  // What rests in the cache of file events leaves it.
  void Settle() {
    clock_.Advance(31s);
    while (engine_->OnIdle()) {
    }
    std::sort(heard_.begin(), heard_.end());
  }

  const std::string base_ = std::filesystem::canonical(folder_.Path());
  const std::string watched_ = base_ + "/watched";
  const Rule rule_ = FakeRule::Directory("rule", watched_, {EventType::Write});
};

TEST_F(RuleEnginePathsTest, ReportsTheRemovalItselfOnce) {
  RemoveFolder();
  EXPECT_EQ(heard_, (Ids{"Delete " + watched_}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Rule rule is not in force any more: " + watched_ + " is gone"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 0 of 1"));
  EXPECT_TRUE(engine_->IsLookingForPaths());
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
  EXPECT_FALSE(engine_->IsLookingForPaths());
}

TEST_F(RuleEnginePathsTest, WatchesTheFolderAgainThatIsMadeAgain) {
  RemoveFolder();
  engine_->LookForMissingPaths();
  EXPECT_TRUE(InstalledIds().empty());
  std::filesystem::create_directory(watched_);
  engine_->LookForMissingPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule rule is in force: " + watched_ + " is there now"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rules in force: 1 of 1"));
  EXPECT_FALSE(engine_->IsLookingForPaths());
}

TEST_F(RuleEnginePathsTest, ReportsWhatWasMadeBeforeTheRuleWasThere) {
  RemoveFolder();
  heard_.clear();
  std::filesystem::create_directories(watched_ + "/sub/below");
  std::filesystem::create_symlink("nowhere", watched_ + "/link");
  engine_->LookForMissingPaths();
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
  EXPECT_TRUE(engine_->IsLookingForPaths());
  std::filesystem::create_directories(watched_ + "/sub");
  kernel_.calls.clear();
  engine_->LookForMissingPaths();
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
  EXPECT_FALSE(engine_->IsLookingForPaths());
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"Rename " + base_ + "/away"}));
}

TEST_F(RuleEnginePathsTest, GivesUpTheRulesBelowAFolderThatIsRenamed) {
  std::filesystem::create_directories(base_ + "/parent/sub");
  engine_->AddRules("FIM", {FakeRule::Directory("below", base_ + "/parent/sub", {EventType::Write})});
  std::filesystem::rename(base_ + "/parent", base_ + "/away");
  Process(EventType::Rename, "Rename", base_ + "/parent", base_ + "/away");
  EXPECT_TRUE(engine_->IsLookingForPaths());
}

TEST_F(RuleEnginePathsTest, IsNotMovedByWhatFailed) {
  auto event = std::make_unique<FakeEvent>(EventType::Delete, "Delete", watched_);
  event->object_type = ObjectType::Directory;
  event->successful = false;
  engine_->ProcessEvent(std::move(event));
  EXPECT_FALSE(engine_->IsLookingForPaths());
}

TEST_F(RuleEnginePathsTest, WatchesAFileAgainWhoseFolderCameBack) {
  engine_->AddRules("FIM", {FakeRule::File("rule", watched_ + "/file", {EventType::Write})});
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  std::filesystem::create_symlink("nowhere", watched_ + "/file");
  heard_.clear();
  engine_->LookForMissingPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  engine_->OnIdle();
  Settle();
  EXPECT_EQ(heard_, (Ids{"Create " + watched_ + "/file"}));
}

TEST_F(RuleEnginePathsTest, DoesNotLookForAPathThatWasNeverThereByItself) {
  engine_->AddRules("FIM", {FakeRule::Directory("never", base_ + "/never", {EventType::Write})});
  EXPECT_FALSE(engine_->IsLookingForPaths());
  std::filesystem::create_directory(base_ + "/never");
  engine_->LookForMissingPaths();
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEnginePathsTest, LooksForItWhereCoverageIsExtended) {
  engine_.reset();
  extended_coverage_ = true;
  Start();
  Listen();
  engine_->AddRules("FIM", {FakeRule::Directory("never", base_ + "/never", {EventType::Rename})});
  EXPECT_TRUE(engine_->IsLookingForPaths());
  EXPECT_EQ(told_to_look_, 1);
  std::filesystem::create_directory(base_ + "/never");
  engine_->LookForMissingPaths();
  EXPECT_FALSE(InstalledIds().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Rule never is in force: " + base_ + "/never is there now"));
}

TEST_F(RuleEnginePathsTest, TellsOnceThatThereAreNowPathsToLookFor) {
  EXPECT_EQ(told_to_look_, 0);
  RemoveFolder();
  EXPECT_EQ(told_to_look_, 1);
  engine_->LookForMissingPaths();
  EXPECT_EQ(told_to_look_, 1);
  std::filesystem::create_directory(watched_);
  engine_->LookForMissingPaths();
  RemoveFolder();
  EXPECT_EQ(told_to_look_, 2);
}

TEST_F(RuleEnginePathsTest, KeepsLookingWhenTheKernelCannotBeAsked) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.open_error = EMFILE;
  engine_->LookForMissingPaths();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "RuleEngine: Failed to put rules into force again: "));
  kernel_.open_error = 0;
  engine_->LookForMissingPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
}

TEST_F(RuleEnginePathsTest, APassingRefusalDoesNotEndARule) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.refuse_add = [](const fakes::SeenRule& rule) { return rule.Key() == "rule" ? ENOTDIR : 0; };
  engine_->LookForMissingPaths();
  EXPECT_TRUE(InstalledIds().empty());
  EXPECT_TRUE(engine_->IsLookingForPaths());
  kernel_.refuse_add = nullptr;
  engine_->LookForMissingPaths();
  EXPECT_EQ(InstalledIds(), (Ids{"rule"}));
  EXPECT_FALSE(engine_->IsLookingForPaths());
}

TEST_F(RuleEnginePathsTest, TellsARefusalThatLastsOnce) {
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  RuleEngineFixture::watched_.clear();
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOSPC; };
  for (int looks = 0; looks < 3; ++looks) engine_->LookForMissingPaths();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to renew rule rule: Failed to add rule to audit subsystem"));
  EXPECT_EQ(RenewalErrors(), 2);
  EXPECT_TRUE(RuleEngineFixture::watched_.empty()) << "and lets nobody look through the folders for it";

  kernel_.refuse_add = nullptr;
  engine_->LookForMissingPaths();
  EXPECT_EQ(RuleEngineFixture::watched_.size(), 1U);
  RemoveFolder();
  std::filesystem::create_directory(watched_);
  kernel_.refuse_add = [](const fakes::SeenRule&) { return ENOSPC; };
  engine_->LookForMissingPaths();
  EXPECT_EQ(RenewalErrors(), 4) << "this is news";
}

TEST_F(RuleEnginePathsTest, ForgetsWhatARuleWaitedForThatIsReplaced) {
  RemoveFolder();
  engine_->AddRules("FIM", {});
  EXPECT_FALSE(engine_->IsLookingForPaths());
  EXPECT_TRUE(log_.Has("Rules in force: 0 of 0"));
}

}  // namespace
}  // namespace zagent::audit
