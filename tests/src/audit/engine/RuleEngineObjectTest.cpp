#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "common/src/util/DeviceText.h"
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

  const std::string base_ = std::filesystem::canonical(folder_.Path());
  const std::string watched_folder_ = base_ + "/watched", link_ = base_ + "/link";
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
  auto event = EventIn(watched_folder_, link_ + "/old");
  event->type = EventType::Rename;
  event->new_file = common::ImageInfo(link_ + "/new");
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
