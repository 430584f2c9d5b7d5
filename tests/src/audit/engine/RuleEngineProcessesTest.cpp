#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/src/audit/engine/RuleEngineFixture.h"

namespace zagent::audit {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;

// What the engine knows of processes while a component asks for them.
class RuleEngineProcessesTest : public RuleEngineFixture {
 protected:
  void ListenToProcesses() {
    Listen("IOC");
    AddProcessRule();
  }
  // A process rule that looks at starts, under a name.
  static Rule Named(const std::string& id, const std::string& name) {
    FakeRule rule(id, ObjectType::Process, "", edr::EventTypes{EventType::ProcessStart});
    rule.name = name;
    return std::make_shared<const FakeRule>(std::move(rule));
  }
  void AddProcessRule() {
    engine_->AddRules("IOC", {std::make_shared<const fakes::FakeRule>("p", ObjectType::Process, "",
                                                                      edr::EventTypes{EventType::ProcessStart})});
  }
  std::unique_ptr<FakeEvent> Event(EventType type, std::uint32_t id, std::int32_t pid, std::int32_t ppid) {
    auto event = std::make_unique<FakeEvent>();
    event->type = type;
    event->object_type = ObjectType::Process;
    event->id = id;
    event->pid = pid;
    event->ppid = ppid;
    event->image = common::ImageInfo(program_);
    return event;
  }
  void Start(std::uint32_t id, std::int32_t pid, std::int32_t ppid) {
    engine_->ProcessEvent(Event(EventType::ProcessStart, id, pid, ppid));
  }
  void Act(std::uint32_t id, std::int32_t pid) {
    auto event = FolderEvent(id, folder_ / "sub");
    event->pid = pid;
    event->image = common::ImageInfo(program_);
    engine_->ProcessEvent(std::move(event));
  }

  fakes::TempFolder programs_;
  const std::string program_ = programs_.Write("program", "x");
};

TEST_F(RuleEngineProcessesTest, ReportsAStartMadeUpBeforeTheEventThatNeededIt) {
  ListenToProcesses();
  Start(5, 50, -1);
  auto exec = Event(EventType::ProcessStart, 6, 51, 50);
  engine_->ProcessEvent(std::move(exec));
  engine_->ProcessEvent(Event(EventType::ProcessClone, 7, 52, 51));
  Start(8, 53, 52);
  EXPECT_EQ(heard_, (Ids{"IOC p,:5", "IOC p,:6", "IOC p,:0", "IOC p,:8"}));
}

TEST_F(RuleEngineProcessesTest, KnowsTheWholeFamilyByItsAncestors) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  ListenToProcesses();
  Start(1, 400, -1);  // the parent agent
  Start(2, 500, 400);
  Start(3, 501, 500);
  Act(4, 501);
  EXPECT_TRUE(heard_.empty());
  Start(5, 700, -1);
  Act(6, 700);
  EXPECT_EQ(heard_, (Ids{"IOC p,:5", "FIM a,:6"}));
}

TEST_F(RuleEngineProcessesTest, AForkOnThePidOfAKilledChildOfTheAgentIsHeard) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  ListenToProcesses();
  Start(1, 400, -1);
  processes_.Start(500, 60);
  Start(2, 500, 400);
  processes_.Start(500, 9'000);  // killed, which no record tells, and the pid is somebody else's
  Start(3, 700, -1);
  engine_->ProcessEvent(Event(EventType::ProcessClone, 4, 500, 700));
  Act(5, 500);
  EXPECT_EQ(heard_, (Ids{"IOC p,:3", "IOC p,:0", "FIM a,:5"}));
}

TEST_F(RuleEngineProcessesTest, DeliversWhatAProcessDidBeforeItsEnd) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  ListenToProcesses();
  Start(1, 700, -1);
  auto write = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
  write->id = 2;
  write->pid = 700;
  engine_->ProcessEvent(std::move(write));
  EXPECT_EQ(heard_, (Ids{"IOC p,:1"}));
  engine_->ProcessEvent(Event(EventType::ProcessExit, 3, 700, -1));
  EXPECT_EQ(heard_, (Ids{"IOC p,:1", "FIM a,:2", "IOC p,:3"}));
}

TEST_F(RuleEngineProcessesTest, HearsTheRestedWriteOfAProcessThatBecameASiblingSince) {
  Listen("FIM");
  engine_->AddRules("FIM", {Watch("a")});
  ListenToProcesses();
  processes_.Start(700, 50, updated_);
  Start(1, 700, -1);
  auto write = std::make_unique<FakeEvent>(EventType::Write, "Write", folder_ / "file");
  write->id = 2;
  write->pid = 700;
  write->image = common::ImageInfo(program_);
  engine_->ProcessEvent(std::move(write));
  auto exec = Event(EventType::ProcessStart, 3, 700, -1);
  exec->image = common::ImageInfo(updated_);
  engine_->ProcessEvent(std::move(exec));
  clock_.Advance(31s);
  engine_->OnIdle();
  EXPECT_EQ(heard_, (Ids{"IOC p,:1", "FIM a,:2"}));
}

TEST_F(RuleEngineProcessesTest, AnExclusionDiesWithItsProcessThoughTheTreeDoesNotKnowIt) {
  ListenToProcesses();
  ASSERT_EQ(Exclusions(), kAllExclusions);
  engine_->ProcessEvent(Event(EventType::ProcessExit, 1, 400, 1));
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(Exclusions(), kAllExclusions - 2);
}

TEST_F(RuleEngineProcessesTest, ForgetsTheClonesWhenEventsWereLost) {
  engine_->RegisterEventHandlers(
      "IOC", [this](const Ids&, const edr::Event& event) { heard_.push_back(std::to_string(event.GetId())); },
      [this] { AddProcessRule(); });
  AddProcessRule();
  engine_->ProcessEvent(Event(EventType::ProcessClone, 1, 42, -1));
  engine_->ProcessEvent(Event(EventType::ProcessClone, 2, 43, -1));
  Start(3, 50, 42);
  EXPECT_EQ(heard_, (Ids{"0", "3"}));
  engine_->Invalidate();
  Start(4, 51, 43);
  EXPECT_EQ(heard_, (Ids{"0", "3", "4"}));
}

TEST_F(RuleEngineProcessesTest, NamesOfProcessRulesMayMoveAlong) {
  Listen("IOC");
  engine_->AddRules("IOC", {Named("a", "X"), Named("b", "Y")});
  const Ids installed = InstalledIds();
  kernel_.calls.clear();
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("IOC", {Named("a", "Y"), Named("b", "Z")}); }), "no error");
  EXPECT_TRUE(kernel_.calls.empty()) << "nothing is missed meanwhile";
  EXPECT_EQ(InstalledIds(), installed);
  Start(1, 700, -1);
  EXPECT_EQ(heard_, (Ids{"IOC a,b,:1"}));
  EXPECT_EQ(ErrorOf([&] { engine_->AddRules("IOC", {Named("a", "Z"), Named("b", "Y")}); }), "no error") << "they swap";
}

TEST_F(RuleEngineProcessesTest, ARuleThatTakesTheNameOfOneThatStaysKeepsTheLaterOneOut) {
  Listen("IOC");
  engine_->AddRules("IOC", {Named("a", "X"), Named("b", "Y")});
  EXPECT_EQ(ErrorOf([&] {
              engine_->AddRules("IOC", {Named("a", "Y"), Named("b", "Y")});
            }),
            "engine: Cannot add more than 1 process rule for 'Y'");
  EXPECT_TRUE(kernel_.RulesWithKey("b").empty()) << "no rule of the kernel without one of the table";
  Start(1, 700, -1);
  EXPECT_EQ(heard_, (Ids{"IOC a,:1"}));
}

TEST_F(RuleEngineProcessesTest, TakesChangesFromOtherThreadsWhileEventsFlow) {
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  std::size_t heard = 0;
  engine_->RegisterEventHandlers(
      "IOC", [&](const Ids&, const edr::Event&) { ++heard; }, [this] { AddProcessRule(); });
  AddProcessRule();
  // As a component does that keeps what it hears, and adds its rules again when they were dropped.
  std::vector<std::unique_ptr<edr::Event>> kept;
  const auto add_rules = [this] { engine_->AddRules("FIM", {Watch("a")}); };
  engine_->RegisterEventHandlers(
      "FIM",
      [&](const Ids& ids, const edr::Event& event) {
        if (!ids.empty() && event.GetFile() != nullptr) kept.push_back(event.Clone());
      },
      add_rules);
  const auto repeat = [](auto action) {
    return std::thread([action] {
      for (int i = 0; i < 100; ++i) action(i);
    });
  };
  std::array<std::thread, 5> others = {
      repeat([&](int) { engine_->Invalidate(); }),
      repeat([&](int i) { engine_->UpdateExclusions(400 + i % 2, "/opt/ostrel/bin/host-warden"); }), repeat([&](int i) {
        engine_->AddRules("FIM", i % 2 == 0 ? edr::EventRuleEngine::Rules{Watch("a")} : edr::EventRuleEngine::Rules{});
      }),
      repeat([&](int) { engine_->LookAtPaths(); }), repeat([&](int) { engine_->LookAtExclusions(); })};
  for (std::int32_t pid = 1'000; pid < 1'500; ++pid) {
    const auto id = static_cast<std::uint32_t>(pid);
    engine_->ProcessEvent(Event(EventType::ProcessClone, id, pid, pid - 1));
    Start(id, pid, pid - 1);
    Act(id, pid);
    if (pid % 2 == 0) engine_->ProcessEvent(Event(EventType::ProcessExit, id, pid, pid - 1));
  }
  for (std::thread& other : others) other.join();
  add_rules();
  kept.clear();
  Act(1, 2'000);
  EXPECT_EQ(kept.size(), 1U);
  Act(1, 2'000);  // the round that follows a time without rules is over
  heard = 0;
  Start(1, 2'001, -1);
  EXPECT_EQ(heard, 1U);
}

}  // namespace
}  // namespace zagent::audit
