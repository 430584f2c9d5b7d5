#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;

class RuleEngineRoutingTest : public RuleEngineFixture {};

TEST_F(RuleEngineRoutingTest, RefusesANullEvent) {
  EXPECT_EQ(ErrorOf([&] { engine_->ProcessEvent(nullptr); }), "RuleEngine::ProcessEvent: 'event' is nullptr");
}

TEST_F(RuleEngineRoutingTest, CallsEachTagOnceWithAllItsRules) {
  Listen("FIM");
  Listen("IOC");
  engine_->AddRules("FIM", {Watch("b"), FakeRule::Directory("a", "/tmp", {EventType::Write})});
  engine_->AddRules("IOC", {Watch("c")});
  auto event = FolderEvent(7, folder_ / "sub");
  event->audit_key = "b";  // the kernel names only one of the rules that match
  engine_->ProcessEvent(std::move(event));
  EXPECT_EQ(heard_, (Ids{"FIM a,b,:7", "IOC c,:7"}));
}

TEST_F(RuleEngineRoutingTest, AsksOfEachPathOneByOneWhoIsConcerned) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("all"), FakeRule::Directory("sub", folder_ / "sub", {EventType::Write})});
  std::uint32_t id = 0;
  for (const char* name : {"a", "b", "sub", "sub/c", "sub/c/d", "e"}) {
    engine_->ProcessEvent(FolderEvent(++id, folder_ / name));
  }
  engine_->ProcessEvent(FolderEvent(++id, "/elsewhere/a"));
  engine_->ProcessEvent(FolderEvent(++id, ""));
  engine_->ProcessEvent(FolderEvent(++id, folder_ / "sub/f"));
  EXPECT_EQ(heard_, (Ids{"FIM all,:1", "FIM all,:2", "FIM all,sub,:3", "FIM all,sub,:4", "FIM all,sub,:5", "FIM all,:6",
                         "FIM all,sub,:9"}));
}

TEST_F(RuleEngineRoutingTest, AsksOfBothEndsOfARename) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  const auto rename = [this](std::uint32_t id, const std::string& from, const std::string& to) {
    auto event = FolderEvent(id, from);
    event->type = EventType::Rename;
    event->new_file.emplace(to);
    engine_->ProcessEvent(std::move(event));
  };
  rename(1, "/elsewhere/a", "/elsewhere/b");
  rename(2, "/elsewhere/a", folder_ / "b");
  rename(3, "/elsewhere/a", "/elsewhere/b");
  rename(4, folder_ / "a", "/elsewhere/b");
  EXPECT_EQ(heard_, (Ids{"FIM a,:2", "FIM a,:4"}));
}

TEST_F(RuleEngineRoutingTest, CallsNobodyForAPathWithoutRuleOrATagWithoutHandler) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  engine_->AddRules("IOC", {Watch("b")});
  engine_->ProcessEvent(FolderEvent(1, "/elsewhere/sub"));
  EXPECT_TRUE(heard_.empty());
  engine_->ProcessEvent(FolderEvent(2, folder_ / "sub"));
  EXPECT_EQ(heard_, (Ids{"FIM a,:2"}));
}

TEST_F(RuleEngineRoutingTest, DeliversAFileEventAfterItsRest) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  engine_->ProcessEvent(std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file"));
  clock_.Advance(30s);
  engine_->OnIdle();
  EXPECT_TRUE(heard_.empty());
  clock_.Advance(1s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

TEST_F(RuleEngineRoutingTest, LooksAtAProgramWhoseNameARuleTrustsWhenItsEventComesIn) {
  std::vector<bool> disguised;
  engine_->RegisterEventHandlers(
      "FIM", [&](const Ids&, const edr::Event& event) { disguised.push_back(event.IsImageDisguised()); }, [] {});
  const std::string program = folder_.Write("updater", "the real one");
  const std::string jail = folder_ / "jail";
  std::filesystem::create_directories(jail + folder_.Path());
  folder_.Write("jail" + program, "an impostor");
  FakeRule rule("a", ObjectType::Directory, folder_.Path(), {EventType::Write});
  rule.trusts_programs = true;
  const auto write_as = [&](std::int32_t pid) {
    auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
    event->pid = pid;
    event->image = common::ImageInfo(program);
    engine_->ProcessEvent(std::move(event));
  };
  processes_.Start(500, 30, program);
  processes_.Start(501, 31, jail + program);
  std::filesystem::create_symlink(jail, processes_.Root() + "/501/root");

  engine_->AddRules("FIM", {std::make_shared<const FakeRule>(std::move(rule))});
  write_as(500);
  write_as(501);
  processes_.End(501);  // before its event has rested
  clock_.Advance(31s);
  engine_->OnIdle();
  engine_->OnIdle();
  EXPECT_EQ(disguised, (std::vector<bool>{false, true}));

  disguised.clear();
  engine_->AddRules("FIM", {Watch("a")});
  processes_.Start(501, 31, jail + program);
  std::filesystem::create_symlink(jail, processes_.Root() + "/501/root");
  write_as(501);
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(disguised, std::vector<bool>{false}) << "no rule trusts the name: nobody looks";
}

TEST_F(RuleEngineRoutingTest, LooksAtAProgramAlsoWhereTheKernelsKeyAloneNamesTheRuleThatTrustsIt) {
  std::vector<bool> disguised;
  engine_->RegisterEventHandlers(
      "FIM", [&](const Ids&, const edr::Event& event) { disguised.push_back(event.IsImageDisguised()); }, [] {});
  const std::string program = folder_.Write("updater", "the real one");
  const std::string jail = folder_ / "jail";
  std::filesystem::create_directories(jail + folder_.Path());
  folder_.Write("jail" + program, "an impostor");
  FakeRule rule("a", ObjectType::Directory, folder_.Path(), {EventType::Write});
  rule.trusts_programs = true;
  engine_->AddRules("FIM", {std::make_shared<const FakeRule>(std::move(rule))});
  processes_.Start(501, 31, jail + program);
  std::filesystem::create_symlink(jail, processes_.Root() + "/501/root");

  auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", "/elsewhere/file");
  event->pid = 501;
  event->image = common::ImageInfo(program);
  event->audit_key = "a";
  engine_->ProcessEvent(std::move(event));
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(disguised, std::vector<bool>{true});
}

TEST_F(RuleEngineRoutingTest, SaysWhetherMoreIsDueAndDeliversTheRestAtTheEnd) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  const auto write = [&](std::uint32_t id) {
    auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
    event->id = id;
    event->timestamp = common::util::ToNanoseconds(clock_.Now());
    engine_->ProcessEvent(std::move(event));
  };
  write(1);
  write(2);
  clock_.Advance(31s);
  EXPECT_TRUE(engine_->OnIdle());
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
  EXPECT_FALSE(engine_->OnIdle());
  write(3);
  engine_->OnStop(5s);
  EXPECT_EQ(heard_, (Ids{"FIM a,:1", "FIM a,:2", "FIM a,:3"}));
}

TEST_F(RuleEngineRoutingTest, HearsARenameIntoAWatchedFolder) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  auto event = std::make_unique<FakeEvent>(EventType::Rename, "Rename", "/elsewhere/old");
  event->new_file = common::ImageInfo(folder_ / "new");
  engine_->ProcessEvent(std::move(event));
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"FIM a,:1"}));
}

TEST_F(RuleEngineRoutingTest, AComponentThatFailsDoesNotTakeTheEventFromTheNext) {
  engine_->RegisterEventHandlers(
      "FIM", [](const Ids&, const edr::Event&) { throw edr::EventException("not mine"); }, [] {});
  Listen("IOC");
  engine_->AddRules("FIM", {Watch("a")});
  engine_->AddRules("IOC", {Watch("b")});
  engine_->ProcessEvent(FolderEvent(5, folder_ / "sub"));
  EXPECT_EQ(heard_, (Ids{"IOC b,:5"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to process event with ID 5: not mine"));
}

TEST_F(RuleEngineRoutingTest, TheLastWhoKeepsARestedEventGetsTheEventItself) {
  using Event = std::unique_ptr<edr::Event>;
  std::vector<Event> first;
  std::vector<Event> last;
  engine_->RegisterEventKeeper(
      "IOC-A", [&](const Ids&, Event event) { first.push_back(std::move(event)); }, [] {});
  engine_->RegisterEventKeeper(
      "IOC-B", [&](const Ids&, Event event) { last.push_back(std::move(event)); }, [] {});
  Listen("FIM");
  for (const char* tag : {"FIM", "IOC-A", "IOC-B"}) engine_->AddRules(tag, {Watch("a")});
  auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
  const edr::Event* const itself = event.get();
  event->id = 5;
  engine_->ProcessEvent(std::move(event));
  EXPECT_TRUE(last.empty());
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"FIM a,:5"}));
  ASSERT_EQ(first.size(), 1U);
  ASSERT_EQ(last.size(), 1U);
  EXPECT_NE(first.front().get(), itself);
  EXPECT_EQ(first.front()->GetId(), 5U);
  EXPECT_EQ(last.front().get(), itself);
}

TEST_F(RuleEngineRoutingTest, WhoKeepsAnEventThatDoesNotRestGetsACopy) {
  std::unique_ptr<edr::Event> kept;
  engine_->RegisterEventKeeper(
      "IOC", [&](const Ids&, std::unique_ptr<edr::Event> event) { kept = std::move(event); }, [] {});
  engine_->AddRules("IOC", {Watch("a")});
  std::unique_ptr<edr::Event> event = FolderEvent(5, folder_ / "sub");
  const edr::Event* const itself = event.get();
  engine_->ProcessEvent(std::move(event));
  ASSERT_NE(kept, nullptr);
  EXPECT_NE(kept.get(), itself);
  EXPECT_EQ(kept->GetId(), 5U);
  ASSERT_NE(event, nullptr) << "it goes no further";
  EXPECT_EQ(event->GetId(), 5U);
}

TEST_F(RuleEngineRoutingTest, AComponentThatFailsDoesNotTakeARestedEventFromWhoKeepsIt) {
  std::unique_ptr<edr::Event> kept;
  engine_->RegisterEventHandlers(
      "FIM", [](const Ids&, const edr::Event&) { throw edr::EventException("not mine"); }, [] {});
  engine_->RegisterEventKeeper(
      "IOC", [&](const Ids&, std::unique_ptr<edr::Event> event) { kept = std::move(event); }, [] {});
  for (const char* tag : {"FIM", "IOC"}) engine_->AddRules(tag, {Watch("a")});
  auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
  event->id = 5;
  engine_->ProcessEvent(std::move(event));
  clock_.Advance(31s);
  engine_->OnIdle();
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->GetId(), 5U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to process event with ID 5: not mine"));
}

TEST_F(RuleEngineRoutingTest, AHandlerMayChangeTheRulesBecauseNoLockIsHeld) {
  engine_->RegisterEventHandlers(
      "FIM", [&](const Ids&, const edr::Event&) { engine_->AddRules("FIM", {}); }, [] {});
  engine_->AddRules("FIM", {Watch("a")});
  engine_->ProcessEvent(FolderEvent(1, folder_ / "sub"));
  EXPECT_TRUE(InstalledIds().empty());
}

TEST_F(RuleEngineRoutingTest, TakesNewRulesFromSeveralThreadsWhileEventsFlow) {
  Listen("FIM");
  const Rule first = Watch("a");
  const Rule second = Watch("b");
  std::thread owner([&] {
    for (int i = 0; i < 50; ++i) engine_->AddRules("FIM", {first, second});
  });
  std::thread agent([&] {
    for (int i = 0; i < 1'000; ++i) {
      engine_->UpdateExclusions(400 + i % 2, "/opt/ostrel/bin/host-warden");
      engine_->LookAtExclusions();
      engine_->LookAtPaths();
    }
  });
  std::thread channel([&] {
    for (int i = 0; i < 50; ++i) engine_->Invalidate();
  });
  for (std::uint32_t id = 1; id <= 2'000; ++id) {
    auto event = FolderEvent(id, folder_ / "sub");
    // Now and then the watched folder itself seems to go.
    if (id % 10 == 0) event = FolderEvent(id, folder_.Path());
    if (id % 10 == 0) event->type = EventType::Delete;
    engine_->ProcessEvent(std::move(event));
    engine_->OnIdle();
  }
  owner.join();
  agent.join();
  channel.join();
  engine_->AddRules("FIM", {first});
  heard_.clear();
  engine_->ProcessEvent(FolderEvent(2'001, folder_ / "sub"));
  EXPECT_EQ(heard_, (Ids{"FIM a,:2001"}));
}

TEST_F(RuleEngineRoutingTest, DropsWhatTheProgramAndItsFamilyDo) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  auto own = FolderEvent(1, folder_ / "sub");
  own->pid = getpid();
  engine_->ProcessEvent(std::move(own));
  auto agent = FolderEvent(2, folder_ / "sub");
  agent->pid = 400;
  engine_->ProcessEvent(std::move(agent));
  auto sibling = FolderEvent(3, folder_ / "sub");
  sibling->image = common::ImageInfo(install_ / "bin/ostrel-log-collector");
  engine_->ProcessEvent(std::move(sibling));
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(log_.Count("AuditRuleEngine::ShouldProcessEvent: Dropping Ostrel generated event with ID: "), 3);

  engine_->UpdateExclusions(401, "/opt/ostrel/bin/host-warden");
  auto former_agent = FolderEvent(4, folder_ / "sub");
  former_agent->pid = 400;
  engine_->ProcessEvent(std::move(former_agent));
  EXPECT_EQ(heard_, (Ids{"FIM a,:4"}));
}

TEST_F(RuleEngineRoutingTest, TheListenerHearsWhatTheProgramAndItsFamilyDo) {
  engine_->AddRules("FIM", {Watch("r1")});
  Listen("FIM");
  auto own = FolderEvent(1, folder_ / "sub");
  own->pid = getpid();
  engine_->ProcessEvent(std::move(own));
  engine_->ProcessEvent(FolderEvent(2, "/where/no/rule/is"));
  EXPECT_EQ(came_in_, (std::vector<std::uint32_t>{1, 2}));
  EXPECT_TRUE(heard_.empty());
}

TEST_F(RuleEngineRoutingTest, NeverDropsAnAbnormalEndAsItsOwnAndCopesWithoutAnImage) {
  auto event = std::make_unique<FakeEvent>();
  event->type = EventType::AbnormalEnd;
  event->object_type = ObjectType::Process;
  event->image.reset();
  event->pid = getpid();
  engine_->ProcessEvent(std::move(event));
  EXPECT_FALSE(log_.Has("Dropping Ostrel generated event"));
  EXPECT_FALSE(log_.Has("Failed to process event")) << log_.All();
}

}  // namespace
}  // namespace zagent::audit
