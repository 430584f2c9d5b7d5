#include "src/audit/rules/EventRouter.h"

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
    router_.DeliverExpired();
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  Deliveries delivered_;
  bool is_own_ = false;
  std::function<void(const edr::Event&)> on_delivery_ = [](const edr::Event&) {};
  EventRouter router_{clock_, [this](const edr::Event&) { return !is_own_; },
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
}

}  // namespace
}  // namespace zagent::audit::internal
