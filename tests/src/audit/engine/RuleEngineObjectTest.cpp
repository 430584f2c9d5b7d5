#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "src/audit/events/RenameEvent.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using fakes::FakeEvent;
using fakes::FakeRule;

// Rules are found by what an object is, not only by what it was called.
class RuleEngineObjectTest : public RuleEngineFixture {
 protected:
  RuleEngineObjectTest() {
    std::filesystem::create_directory(watched_folder_);
    std::filesystem::create_directory_symlink(watched_folder_, link_);
    engine_->RegisterEventHandlers(
        "FIM",
        [this](const Ids& ids, const edr::Event& event) {
          for (const std::string& id : ids) heard_.push_back(id + " " + event.GetFile()->GetPath());
        },
        [] {});
    engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_folder_, {EventType::Write})});
  }

  // A folder was made in `parent` under the name that the caller used.
  std::unique_ptr<FakeEvent> EventIn(const std::string& parent, const std::string& path) {
    auto event = FolderEvent(1, path);
    struct stat found {};
    if (stat(parent.c_str(), &found) == 0) {
      event->parent_inode = found.st_ino;
      event->parent_device = common::util::DeviceText(found.st_dev);
    }
    return event;
  }

  // The folder is watched as a whole; and a file, which has another link in the other folder.
  void WatchAnotherFolderWithALink() {
    std::filesystem::create_directory(other_);
    std::filesystem::create_directory_symlink(watched_folder_, other_ + "/l");
    folder_.Write("file", "x");
    std::filesystem::create_hard_link(base_ + "/file", other_ + "/hard");
    engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_folder_, {EventType::Write}),
                              FakeRule::File("file", base_ + "/file", {EventType::Write}),
                              FakeRule::Directory("wide", other_, {EventType::Write})});
  }
  // Something in the watched folder, which the kernel tells of by that folder's key, by way of the link.
  std::unique_ptr<FakeEvent> EventByLink() {
    auto event = EventIn(watched_folder_, other_ + "/l/sub");
    event->audit_key = "rule";
    return event;
  }
  // The folder old became new in `parent`, which the caller used the name `folder` for.
  static std::unique_ptr<edr::Event> RenameIn(const std::string& parent, const std::string& folder) {
    std::filesystem::create_directory(parent + "/new");
    fakes::AuditRecords records(1);
    records.Syscall(82, {{"items", "4"}, {"key", "\"rule\""}})
        .Cwd("/")
        .Path("PARENT", folder + "/", parent)
        .Path("PARENT", folder + "/", parent)
        .Path("DELETE", folder + "/old", parent + "/new")
        .Path("CREATE", folder + "/new", parent + "/new");
    return std::make_unique<internal::RenameEvent>(records, nullptr, nullptr);
  }
  std::unique_ptr<FakeEvent> HardLinkEvent(EventType type) {
    auto event = EventIn(other_, other_ + "/hard");
    struct stat found {};
    stat((other_ + "/hard").c_str(), &found);
    event->file = common::ImageInfo(other_ + "/hard", found);
    event->type = type;
    event->audit_key = "file";
    return event;
  }

  const std::string base_ = std::filesystem::canonical(folder_.Path());
  const std::string watched_folder_ = base_ + "/watched", link_ = base_ + "/link", other_ = base_ + "/other";
};

TEST_F(RuleEngineObjectTest, FindsTheRuleOfAFolderThatWasReachedByALink) {
  engine_->ProcessEvent(EventIn(watched_folder_, link_ + "/sub"));
  EXPECT_EQ(heard_, (Ids{"rule " + watched_folder_ + "/sub"})) << "the event says where it really was";
}

TEST_F(RuleEngineObjectTest, LeavesAPathAloneThatARuleKnows) {
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_folder_, {EventType::Write}),
                            FakeRule::Directory("as written", link_, {EventType::Write})});
  engine_->ProcessEvent(EventIn(watched_folder_, link_ + "/sub"));
  EXPECT_EQ(heard_, (Ids{"as written " + link_ + "/sub"}));
}

TEST_F(RuleEngineObjectTest, CorrectsBothEndsOfARename) {
  auto event = RenameIn(watched_folder_, link_);
  std::string new_path;
  engine_->RegisterEventHandlers(
      "FIM",
      [&](const Ids&, const edr::Event& heard) {
        heard_.push_back(heard.GetFile()->GetPath());
        new_path = heard.GetNewFile()->GetPath();
      },
      [] {});
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{watched_folder_ + "/old"}));
  EXPECT_EQ(new_path, watched_folder_ + "/new");
}

TEST_F(RuleEngineObjectTest, CorrectsAFileBeforeItRests) {
  auto event = EventIn(watched_folder_, link_ + "/file");
  event->object_type = edr::ObjectType::File;
  engine_->ProcessEvent(std::move(event));
  std::filesystem::remove(link_);  // who looks later finds nothing any more
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"rule " + watched_folder_ + "/file"}));
}

TEST_F(RuleEngineObjectTest, TakesTheRuleThatTheKernelNamesForWhatNoPathLeadsTo) {
  auto event = EventIn(base_, base_ + "/another hard link");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"rule " + base_ + "/another hard link"}));
}

TEST_F(RuleEngineObjectTest, GivesTheTruePathInsideTheWatchedFolderThatTheKernelNames) {
  auto event = EventIn(watched_folder_, "/what/it/is/called/in/a/jail");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"rule " + watched_folder_ + "/jail"}));
}

TEST_F(RuleEngineObjectTest, TellsWhereAnotherHardLinkReallyIs) {
  std::filesystem::create_directories(base_ + "/outside/below");
  std::filesystem::create_directory_symlink(base_ + "/outside", base_ + "/way");
  auto event = EventIn(base_ + "/outside/below", base_ + "/way/below/hard");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"rule " + base_ + "/outside/below/hard"}));
}

TEST_F(RuleEngineObjectTest, TellsWhereAFolderReallyWentThatWasRenamedOutOfItsRule) {
  std::filesystem::create_directory(base_ + "/outside");
  std::filesystem::create_directory_symlink(base_ + "/outside", base_ + "/way");
  auto event = EventIn(base_ + "/outside", base_ + "/nowhere/old");
  event->type = EventType::Rename;
  event->new_file = common::ImageInfo(base_ + "/way/new");
  event->audit_key = "rule";
  std::string new_path;
  engine_->RegisterEventHandlers(
      "FIM", [&](const Ids&, const edr::Event& heard) { new_path = heard.GetNewFile()->GetPath(); }, [] {});
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(new_path, base_ + "/outside/new");
}

TEST_F(RuleEngineObjectTest, LeavesWhatNobodyHearsOfAsItWasCalled) {
  std::filesystem::create_directory(base_ + "/outside");
  std::filesystem::create_directory_symlink(base_ + "/outside", base_ + "/way");
  Listen("IOC");
  auto event = EventIn(base_ + "/outside", base_ + "/way/new");
  event->audit_key = "a rule of somebody else";
  engine_->ProcessEvent(std::move(event));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineObjectTest, DropsWhatNeitherPathNorKeyLeadToARule) {
  auto event = EventIn(base_, base_ + "/somewhere");
  event->audit_key = "a rule of somebody else";
  engine_->ProcessEvent(std::move(event));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineObjectTest, TakesTheKernelsWordForATagWhoseRulesThePathDoesNotLeadTo) {
  Listen("IOC");
  engine_->AddRules("IOC", {FakeRule::Directory("everything", "/", {EventType::Write})});
  auto event = EventIn(base_, base_ + "/another hard link");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"rule " + base_ + "/another hard link", "IOC everything,:1"}));
}

// --- two rules, two paths

TEST_F(RuleEngineObjectTest, ALinkInAnotherWatchedFolderHidesNothing) {
  WatchAnotherFolderWithALink();
  engine_->ProcessEvent(EventByLink());
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/l/sub", "rule " + watched_folder_ + "/sub"}));
}

// As a manifest's rule behind a link has it: one rule on the folder as it is written, one as it is meant.
TEST_F(RuleEngineObjectTest, TheSameFolderByTwoWaysIsToldOnce) {
  std::filesystem::create_directory_symlink(watched_folder_, base_ + "/by-link");
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_folder_, {EventType::Write}),
                            FakeRule::Directory("rule-1", base_ + "/by-link", {EventType::Write})});
  auto event = EventIn(watched_folder_, base_ + "/by-link/sub");
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"rule " + base_ + "/by-link/sub", "rule-1 " + base_ + "/by-link/sub"}));
}

TEST_F(RuleEngineObjectTest, ALinkThatIsGoneWhenTheFileHasRestedHidesNothing) {
  WatchAnotherFolderWithALink();
  auto event = EventByLink();
  event->object_type = edr::ObjectType::File;
  engine_->ProcessEvent(std::move(event));
  std::filesystem::remove(other_ + "/l");
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/l/sub", "rule " + watched_folder_ + "/sub"}));
}

TEST_F(RuleEngineObjectTest, TellsARuleOnceThatBothPathsLeadTo) {
  WatchAnotherFolderWithALink();
  Listen("IOC");
  engine_->AddRules("IOC", {FakeRule::Directory("everything", "/", {EventType::Write})});
  engine_->ProcessEvent(EventByLink());
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/l/sub", "IOC everything,:1", "rule " + watched_folder_ + "/sub"}));
}

TEST_F(RuleEngineObjectTest, ARuleOfAnotherTagHidesNothing) {
  WatchAnotherFolderWithALink();
  engine_->AddRules("FIM", {FakeRule::Directory("rule", watched_folder_, {EventType::Write})});
  Listen("IOC");
  engine_->AddRules("IOC", {FakeRule::Directory("wide", other_, {EventType::Write})});
  engine_->ProcessEvent(EventByLink());
  EXPECT_EQ(heard_, (Ids{"IOC wide,:1", "rule " + watched_folder_ + "/sub"}));
}

TEST_F(RuleEngineObjectTest, LeavesAnEventAsOneWhoseKeyIsThatOfItsPath) {
  WatchAnotherFolderWithALink();
  auto event = EventByLink();
  event->audit_key = "wide";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/l/sub"}));
}

TEST_F(RuleEngineObjectTest, TellsTheTruePathsOfBothEndsOfARename) {
  WatchAnotherFolderWithALink();
  auto event = RenameIn(watched_folder_, other_ + "/l");
  engine_->RegisterEventHandlers(
      "FIM",
      [&](const Ids& ids, const edr::Event& heard) {
        heard_.push_back(ids.front() + " " + heard.GetFile()->GetPath() + " " + heard.GetNewFile()->GetPath());
      },
      [] {});
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/l/old " + other_ + "/l/new",
                         "rule " + watched_folder_ + "/old " + watched_folder_ + "/new"}));
}

TEST_F(RuleEngineObjectTest, TellsAnotherHardLinkInAnotherWatchedFolderToBoth) {
  WatchAnotherFolderWithALink();
  engine_->ProcessEvent(HardLinkEvent(EventType::Write));
  EXPECT_EQ(heard_, (Ids{"file " + other_ + "/hard", "wide " + other_ + "/hard"}));
  heard_.clear();
  engine_->ProcessEvent(HardLinkEvent(EventType::Delete));
  EXPECT_EQ(heard_, (Ids{"file " + other_ + "/hard", "wide " + other_ + "/hard"}));
}

TEST_F(RuleEngineObjectTest, DoesNotTakeTheOtherSideOfARenameForTheRulesOwn) {
  WatchAnotherFolderWithALink();
  // What "mv" into the other folder has replaced there: the key is that of the folder where it came from.
  auto event = EventIn(other_, other_ + "/replaced");
  event->type = EventType::Delete;
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"wide " + other_ + "/replaced"}));
}

TEST_F(RuleEngineObjectTest, AsksNoKeyForAProcess) {
  auto event = std::make_unique<FakeEvent>();
  event->type = EventType::ProcessStart;
  event->object_type = edr::ObjectType::Process;
  event->audit_key = "rule";
  engine_->ProcessEvent(std::move(event));
  EXPECT_TRUE(heard_.empty());
}

}  // namespace
}  // namespace zagent::audit
