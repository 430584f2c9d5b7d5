#include "src/audit/routing/EventRouter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/EventBytes.h"
#include "src/edr/process/StatHelper.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using Reason = IntakeCounters::Reason;

class EventRouterTest : public ::testing::Test {
 protected:
  struct Delivered {
    std::uint32_t id;
    int refreshed;
    bool operator==(const Delivered&) const = default;
  };
  using Deliveries = std::vector<Delivered>;
  using Twins = std::vector<std::pair<std::uint32_t, std::int32_t>>;

  // An event that happens now.
  std::unique_ptr<FakeEvent> Event(std::uint32_t id, ObjectType object = ObjectType::File) {
    auto event = std::make_unique<FakeEvent>(EventType::Write, "Write", "/watched/file");
    event->id = id;
    event->object_type = object;
    event->timestamp = common::util::ToNanoseconds(clock_.Now());
    return event;
  }
  void PassTime(std::chrono::seconds time) {
    clock_.Advance(time);
    while (router_.OnIdle()) {
    }
  }

  void Take(const edr::Event& event) {
    const auto* fake = dynamic_cast<const FakeEvent*>(&event);
    delivered_.push_back({event.GetId(), fake != nullptr ? fake->refreshed : 0});
    on_delivery_(event);
  }
  // A process of its own in procfs, and an event of it.
  std::unique_ptr<FakeEvent> EventOf(std::int32_t pid, std::uint32_t id, ObjectType object = ObjectType::File) {
    proc_.Start(pid, {.ppid = 0});
    auto event = Event(id, object);
    event->pid = pid;
    event->ppid = 0;
    return event;
  }
  std::unique_ptr<FakeEvent> ExitOf(std::int32_t pid, std::uint32_t id) {
    auto event = EventOf(pid, id, ObjectType::Process);
    event->type = EventType::ProcessExit;
    return event;
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  Deliveries delivered_;
  bool is_own_ = false;
  bool is_agents_ = false;  // as it is known when the event has rested
  std::function<void(const edr::Event&)> on_delivery_ = [](const edr::Event&) {};
  std::function<std::unique_ptr<edr::Event>(const edr::Event&)> find_twin_ = [](const edr::Event&) { return nullptr; };
  Twins twins_;  // id and process of those delivered
  static constexpr std::size_t kMaxResting = 2000;
  IntakeCounters counters_;
  fakes::FakeProcFs proc_;
  bool has_process_rules_ = false;
  ProcessModel processes_{clock_, counters_, [](const edr::Event&) { return false; }, proc_.Root()};
  EventRouter router_{clock_,
                      kMaxResting,
                      counters_,
                      processes_,
                      {.has_process_rules = [this] { return has_process_rules_; },
                       .should_process =
                           [this](const edr::Event&, EventSource source) {
                             return source == EventSource::Pipeline ? !is_own_ : !is_agents_;
                           },
                       .find_twin = [this](const edr::Event& event) { return find_twin_(event); },
                       .deliver =
                           [this](const edr::Event& event, const edr::Event* twin) {
                             Take(event);
                             if (twin != nullptr) twins_.push_back({twin->GetId(), twin->GetActorProcessId()});
                           }}};
};

TEST_F(EventRouterTest, LetsAFileEventRestForThirtySecondsAndLooksAtTheFileAgain) {
  router_.Process(Event(1));
  PassTime(30s);
  EXPECT_TRUE(delivered_.empty());
  PassTime(1s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}}));
  PassTime(60s);
  EXPECT_EQ(delivered_.size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "RuleEngine::ProcessEvent: Procesing event with ID 1"));
}

TEST_F(EventRouterTest, DeliversADirectoryEventAtOnce) {
  router_.Process(Event(1, ObjectType::Directory));
  EXPECT_EQ(delivered_, (Deliveries{{1, 0}}));
}

TEST_F(EventRouterTest, DeliversWhatIsDueBeforeTheNextEvent) {
  router_.Process(Event(1));
  clock_.Advance(31s);
  router_.Process(Event(2, ObjectType::Directory));
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {2, 0}}));
}

TEST_F(EventRouterTest, LetsTheOldestOfACrowdLeaveEarly) {
  for (std::uint32_t id = 1; id <= 1001; ++id) router_.Process(Event(id));
  EXPECT_TRUE(delivered_.empty());
  PassTime(0s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}}));
}

TEST_F(EventRouterTest, DropsAFailedCallUnlessItConcernsAFile) {
  auto exec = Event(1, ObjectType::Process);
  exec->successful = false;
  exec->action = "Execve";
  router_.Process(std::move(exec));
  auto folder = Event(2, ObjectType::Directory);
  folder->successful = false;
  router_.Process(std::move(folder));
  auto file = Event(3);
  file->successful = false;
  router_.Process(std::move(file));
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{2, 0}, {3, 1}}));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_TRACE, "RuleEngine::ProcessEvent: Dropping unsuccessful Execve event with ID 1"));
}

TEST_F(EventRouterTest, DropsTheProgramsOwnActivityByWhatItWasOnItsWayIn) {
  is_own_ = true;
  router_.Process(Event(1));
  is_own_ = false;
  router_.Process(Event(2));
  is_own_ = true;  // by the time its rest is over its process is one of the family
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{2, 1}}));
}

// --- an event of two paths: its twin has the id plus 100

TEST_F(EventRouterTest, ATwinCountsAmongWhatRests) {
  find_twin_ = [this](const edr::Event& event) { return event.GetId() == 1 ? Event(101) : nullptr; };
  router_.Process(Event(1));
  EXPECT_EQ(router_.GetRestingBytes(), 2 * edr::kOrdinaryEventBytes);
  router_.Process(Event(2));
  EXPECT_EQ(router_.GetRestingBytes(), 3 * edr::kOrdinaryEventBytes);
  router_.DeliverRest(1s);
  EXPECT_EQ(router_.GetRestingBytes(), 0U);
}

TEST_F(EventRouterTest, DeliversATwinTogetherWithItsEvent) {
  find_twin_ = [this](const edr::Event& event) { return Event(event.GetId() + 100, event.GetObjectType()); };
  router_.Process(Event(1, ObjectType::Directory));
  EXPECT_EQ(twins_, (Twins{{101, 100}}));
  router_.Process(Event(2));
  find_twin_ = [](const edr::Event&) { return nullptr; };  // the way there is gone since
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 0}, {2, 1}}));
  EXPECT_EQ(twins_, (Twins{{101, 100}, {102, 100}}));
}

TEST_F(EventRouterTest, DeliversWhicheverOfTheTwoIsStillWhatItWas) {
  find_twin_ = [this](const edr::Event& event) {
    auto twin = Event(event.GetId() + 100);
    if (event.GetId() == 1) twin->refresh_error = "gone";
    return twin;
  };
  router_.Process(Event(1));
  auto gone = Event(2);
  gone->refresh_error = "gone";
  router_.Process(std::move(gone));
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {102, 1}}));
  EXPECT_TRUE(twins_.empty());
}

TEST_F(EventRouterTest, AsksForNoTwinOfAProcess) {
  find_twin_ = [this](const edr::Event& event) { return Event(event.GetId() + 100); };
  router_.Process(Event(1, ObjectType::Process));
  EXPECT_TRUE(twins_.empty());
}

TEST_F(EventRouterTest, ATwinFollowsItsEventFromAThreadToItsProcess) {
  find_twin_ = [](const edr::Event& event) { return event.Clone(); };
  router_.Process(EventOf(42, 1));
  proc_.Start(41, {.ppid = 0});
  proc_.Start(42, {.ppid = 0, .tgid = 41});
  has_process_rules_ = true;  // from now on
  PassTime(31s);
  EXPECT_EQ(twins_, (Twins{{1, 41}}));
}

TEST_F(EventRouterTest, DropsWhatItLearnsToBeTheAgentsWhileItRests) {
  router_.Process(Event(1));
  is_agents_ = true;
  PassTime(31s);
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(EventRouterTest, DropsAnEventWhoseFileWasReplacedAndGoesOn) {
  auto replaced = Event(1);
  replaced->refresh_error = "Actual file path /watched/file differs from the ImageInfo.";
  router_.Process(std::move(replaced));
  router_.Process(Event(2));
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{2, 1}}));
  EXPECT_EQ(counters_.Get(Reason::FileReplaced), 1U);
  EXPECT_EQ(counters_.Get(Reason::NotProcessed), 0U);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "Failed to process event with ID 1: Actual file path /watched/file differs"));
}

TEST_F(EventRouterTest, LetsNoFailureOfAnEventOut) {
  const std::vector<std::pair<std::function<void()>, Poco::Message::Priority>> failures = {
      {[] { throw edr::EventException("event"); }, Poco::Message::PRIO_DEBUG},
      {[] { throw edr::RuleEngineException("rule"); }, Poco::Message::PRIO_DEBUG},
      {[] { throw common::StatHelperException("stat"); }, Poco::Message::PRIO_DEBUG},
      {[] { throw std::logic_error("surprise"); }, Poco::Message::PRIO_ERROR},
  };
  std::uint32_t id = 0;
  for (const auto& [fail, priority] : failures) {
    on_delivery_ = [&fail = fail](const edr::Event&) { fail(); };
    router_.Process(Event(++id, ObjectType::Directory));
    EXPECT_TRUE(log_.Has(priority, "Failed to process event with ID " + std::to_string(id) + ": ")) << log_.All();
  }
  on_delivery_ = [](const edr::Event&) { throw std::runtime_error("late"); };
  router_.Process(Event(10));
  router_.Process(Event(11));
  PassTime(31s);
  EXPECT_TRUE(log_.Has("Failed to process event with ID 10: late"));
  EXPECT_TRUE(log_.Has("Failed to process event with ID 11: late"));
  on_delivery_ = [](const edr::Event&) { throw 42; };  // NOLINT(hicpp-exception-baseclass)
  router_.Process(Event(12, ObjectType::Directory));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to process event with ID 12: unknown failure"));
  EXPECT_EQ(counters_.Get(Reason::NotProcessed), failures.size() + 3);
}

TEST_F(EventRouterTest, DeliversOneDueEventACallAndSaysWhetherMoreAreDue) {
  for (std::uint32_t id = 1; id <= 3; ++id) router_.Process(Event(id));
  clock_.Advance(31s);
  EXPECT_TRUE(router_.OnIdle());
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}}));
  router_.Process(Event(4, ObjectType::Directory));
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {2, 1}, {4, 0}}));
  EXPECT_FALSE(router_.OnIdle());
  EXPECT_EQ(delivered_.size(), 4U);
  EXPECT_FALSE(router_.OnIdle());
}

TEST_F(EventRouterTest, HandsARestedEventOverUnlessItHasATwin) {
  std::vector<std::unique_ptr<edr::Event>> handed_over;
  EventRouter router(
      clock_, kMaxResting, counters_, processes_,
      {.has_process_rules = [] { return false; },
       .should_process = [](const edr::Event&, EventSource) { return true; },
       .find_twin = [](const edr::Event& event) { return event.GetId() == 2 ? event.Clone() : nullptr; },
       .deliver =
           [this](const edr::Event& event, const edr::Event* twin) {
             Take(event);
             if (twin != nullptr) twins_.push_back({twin->GetId(), twin->GetActorProcessId()});
           },
       .hand_over = [&](std::unique_ptr<edr::Event> event) { handed_over.push_back(std::move(event)); }});
  auto rests = Event(1);
  const edr::Event* const itself = rests.get();
  router.Process(std::move(rests));
  router.Process(Event(2));
  std::unique_ptr<edr::Event> passes = Event(3, ObjectType::Directory);
  router.Process(std::move(passes));
  EXPECT_EQ(delivered_, (Deliveries{{3, 0}}));
  ASSERT_NE(passes, nullptr) << "it goes no further";
  clock_.Advance(31s);
  while (router.OnIdle()) {
  }
  ASSERT_EQ(handed_over.size(), 1U);
  EXPECT_EQ(handed_over.front().get(), itself);
  EXPECT_EQ(delivered_, (Deliveries{{3, 0}, {2, 1}}));
  EXPECT_EQ(twins_.size(), 1U);
}

TEST_F(EventRouterTest, HoldsNoMoreThanItsBound) {
  for (std::uint32_t id = 1; id <= kMaxResting + 10; ++id) {
    auto event = Event(id);
    event->pid = static_cast<std::int32_t>(id);
    router_.Process(std::move(event));
  }
  EXPECT_EQ(delivered_.size(), 9U) << "each further event makes room for itself";
  PassTime(0s);
  EXPECT_EQ(delivered_.size(), 10U);
  EXPECT_EQ(delivered_.back(), (Delivered{10, 1}));
}

TEST_F(EventRouterTest, AtTheEndItDeliversWhatRestsWithoutWaitingForIt) {
  router_.Process(Event(1));
  clock_.Advance(10s);
  router_.Process(Event(2));
  router_.DeliverRest(5s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {2, 1}}));
  EXPECT_EQ(counters_.Get(Reason::LeftAtStop), 0U);
  EXPECT_FALSE(log_.Has("No time left"));
}

TEST_F(EventRouterTest, TheLastDeliveryEndsInTimeAndCountsWhatRemains) {
  for (std::uint32_t id = 1; id <= 10; ++id) router_.Process(Event(id));
  on_delivery_ = [this](const edr::Event&) {
    clock_.SetWall(-1h);  // is no help: the time is that of the steady clock
    clock_.Advance(2s);
  };
  router_.DeliverRest(5s);
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {2, 1}, {3, 1}}));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_WARNING, "RuleEngine: No time left to deliver 7 file events that still rested"));
  EXPECT_EQ(counters_.Get(Reason::LeftAtStop), 7U);
  router_.DeliverRest(5s);
  EXPECT_EQ(delivered_.size(), 3U) << "what was counted as lost is not delivered later";
}

TEST_F(EventRouterTest, WithoutAProcessRuleNobodyNeedsTheProcesses) {
  router_.Process(EventOf(42, 1, ObjectType::Directory));
  auto clone = EventOf(43, 2, ObjectType::Process);
  clone->type = EventType::ProcessClone;
  router_.Process(std::move(clone));
  router_.Process(ExitOf(44, 3));
  EXPECT_EQ(delivered_, (Deliveries{{1, 0}, {2, 0}, {3, 0}})) << "as they are, the unknown end too";
  EXPECT_EQ(processes_.Tree().GetSize(), 0U);
}

TEST_F(EventRouterTest, AProcessStartsBeforeItsEventRests) {
  has_process_rules_ = true;
  router_.Process(EventOf(42, 1));
  EXPECT_EQ(delivered_, (Deliveries{{0, 0}}));
  EXPECT_TRUE(processes_.Tree().Contains(42));
  proc_.End(42);
  PassTime(31s);
  EXPECT_EQ(delivered_, (Deliveries{{0, 0}, {1, 1}})) << "it is not looked for again";
}

TEST_F(EventRouterTest, WhatAProcessDidLeavesWithItBeforeItsEnd) {
  has_process_rules_ = true;
  router_.Process(EventOf(42, 1));
  router_.Process(EventOf(43, 2));
  auto replaced = EventOf(42, 3);
  replaced->refresh_error = "Actual file path /watched/file differs from the ImageInfo.";
  router_.Process(std::move(replaced));
  router_.Process(EventOf(42, 4));
  delivered_.clear();
  router_.Process(ExitOf(42, 5));
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {4, 1}, {5, 0}}));
  EXPECT_EQ(counters_.Get(Reason::FileReplaced), 1U);
  EXPECT_FALSE(processes_.Tree().Contains(42));
  PassTime(31s);
  EXPECT_EQ(delivered_.back(), (Delivered{2, 1})) << "the events of others go on resting";
}

TEST_F(EventRouterTest, TheEndOfAnUnknownProcessLeavesItsEventsAtRest) {
  router_.Process(EventOf(42, 1));
  has_process_rules_ = true;
  router_.Process(ExitOf(42, 2));
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(EventRouterTest, TheProgramsOwnProcessesAreForgottenAtTheirEndWithoutAWord) {
  has_process_rules_ = true;
  is_own_ = true;
  router_.Process(EventOf(42, 1));
  router_.Process(ExitOf(42, 2));
  EXPECT_TRUE(delivered_.empty());
  EXPECT_FALSE(processes_.Tree().Contains(42));
}

TEST_F(EventRouterTest, ReportsWhoVanishedWhetherEventsComeOrNot) {
  has_process_rules_ = true;
  router_.Process(EventOf(42, 1, ObjectType::Directory));
  router_.Process(EventOf(43, 2, ObjectType::Directory));
  proc_.End(42);
  PassTime(1800s);
  EXPECT_FALSE(processes_.Tree().Contains(42));
  clock_.Advance(1800s);
  auto event = EventOf(44, 3, ObjectType::Directory);
  proc_.End(43);
  delivered_.clear();
  router_.Process(std::move(event));
  EXPECT_EQ(delivered_, (Deliveries{{0, 0}, {3, 0}, {0, 0}})) << "start of 44, its event, end of 43";
}

TEST_F(EventRouterTest, LooksForTheVanishedWhenProcessesAreOfInterestAgain) {
  has_process_rules_ = true;
  router_.Process(EventOf(42, 1, ObjectType::Directory));
  has_process_rules_ = false;
  router_.Process(ExitOf(42, 2));
  EXPECT_TRUE(processes_.Tree().Contains(42));
  proc_.End(42);
  router_.OnIdle();
  EXPECT_TRUE(processes_.Tree().Contains(42));
  has_process_rules_ = true;
  router_.OnIdle();
  EXPECT_FALSE(processes_.Tree().Contains(42));
}

TEST_F(EventRouterTest, TakesNoCloneForAProcessOfALaterTime) {
  has_process_rules_ = true;
  auto clone = Event(1, ObjectType::Process);
  clone->type = EventType::ProcessClone;
  clone->pid = 77;
  clone->image = common::ImageInfo("/bin/sh");
  router_.Process(std::move(clone));
  has_process_rules_ = false;
  router_.OnIdle();
  has_process_rules_ = true;
  auto event = Event(2, ObjectType::Directory);
  event->pid = 77;
  event->image.reset();
  router_.Process(std::move(event));
  EXPECT_FALSE(processes_.Tree().Contains(77));
  EXPECT_EQ(delivered_, (Deliveries{{2, 0}}));
}

TEST_F(EventRouterTest, AProcessThatCannotBeKnownIsNoError) {
  has_process_rules_ = true;
  auto start = Event(7, ObjectType::Process);
  start->type = EventType::ProcessStart;
  start->ppid = 0;
  start->image = common::ImageInfo("/nowhere/program");
  router_.Process(std::move(start));
  EXPECT_TRUE(delivered_.empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG,
                       "Failed to process event with ID 7: ProcessInfo cannot find image information for PID: 100"));
  EXPECT_EQ(counters_.Get(Reason::NotProcessed), 1U);
}

}  // namespace
}  // namespace zagent::audit::internal
