#include "src/audit/routing/EventRouter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/StatHelper.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
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
    while (router_.DeliverDue()) {
    }
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  Deliveries delivered_;
  bool is_own_ = false;
  std::function<void(const edr::Event&)> on_delivery_ = [](const edr::Event&) {};
  static constexpr std::size_t kMaxResting = 2000;
  IntakeCounters counters_;
  EventRouter router_{clock_, kMaxResting, counters_, [this](const edr::Event&) { return !is_own_; },
                      [this](const edr::Event& event) {
                        delivered_.push_back({event.GetId(), dynamic_cast<const FakeEvent&>(event).refreshed});
                        on_delivery_(event);
                      }};
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

TEST_F(EventRouterTest, DropsTheProgramsOwnActivityOnTheWayInAndOut) {
  is_own_ = true;
  router_.Process(Event(1));
  is_own_ = false;
  PassTime(31s);
  EXPECT_TRUE(delivered_.empty());

  router_.Process(Event(2));
  is_own_ = true;
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
  EXPECT_TRUE(router_.DeliverDue());
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}}));
  router_.Process(Event(4, ObjectType::Directory));
  EXPECT_EQ(delivered_, (Deliveries{{1, 1}, {2, 1}, {4, 0}}));
  EXPECT_FALSE(router_.DeliverDue());
  EXPECT_EQ(delivered_.size(), 4U);
  EXPECT_FALSE(router_.DeliverDue());
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

}  // namespace
}  // namespace zagent::audit::internal
