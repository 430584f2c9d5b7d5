#include "src/edr/EventRuleEngine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr {
namespace {

using Ids = std::vector<std::string>;

// The registration alone, with its protected calls opened.
class BareEngine final : public EventRuleEngine {
 public:
  void AddRules(const std::string&, Rules) override {}
  void Invalidate() override { CallInvalidatedOfAllTags(); }
  void ProcessEvent(std::unique_ptr<Event>&&) override {}
  bool OnIdle() override { return false; }
  void OnStop(std::chrono::nanoseconds) override {}
  using EventRuleEngine::CallRuleMatched;
};

class EventRuleEngineTest : public ::testing::Test {
 protected:
  static void Nothing() {}
  static void Ignore(const Ids&, const Event&) {}

  template <typename Call>
  static std::string ErrorOf(const Call& call) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
  fakes::FakeEvent event_;
  BareEngine engine_;
};

TEST_F(EventRuleEngineTest, RefusesAnIncompleteRegistration) {
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventHandlers("", Ignore, Nothing); }),
            "EventRuleEngine::RegisterEventHandlers: 'tag' is empty");
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventHandlers("FIM", nullptr, Nothing); }),
            "EventRuleEngine::RegisterEventHandlers: 'ruleMatchedEventHandler' is invalid");
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventHandlers("FIM", Ignore, nullptr); }),
            "EventRuleEngine::RegisterEventHandlers: 'invalidatedEventHandler' is invalid");
  EXPECT_EQ(ErrorOf([&] { engine_.UnregisterEventHandlers(""); }),
            "EventRuleEngine::UnregisterEventHandlers: 'tag' is empty");
}

TEST_F(EventRuleEngineTest, TellsWhatHappensToATagsHandlers) {
  engine_.RegisterEventHandlers("FIM", Ignore, Nothing);
  EXPECT_TRUE(log_.Has("EventRuleEngine::RegisterEventHandlers: Adding event handlers for 'FIM'"));
  engine_.RegisterEventHandlers("FIM", Ignore, Nothing);
  EXPECT_TRUE(log_.Has("EventRuleEngine::RegisterEventHandlers: Replacing event handlers for 'FIM'"));
  engine_.UnregisterEventHandlers("FIM");
  EXPECT_TRUE(log_.Has("EventRuleEngine::UnregisterEventHandlers: Removing event handlers for 'FIM'"));
  engine_.UnregisterEventHandlers("FIM");
  EXPECT_TRUE(log_.Has("EventRuleEngine::UnregisterEventHandlers: No event handlers found for 'FIM'"));
}

TEST_F(EventRuleEngineTest, CallsTheHandlerOfTheTagWithTheRulesAndTheEvent) {
  Ids seen;
  const Event* seen_event = nullptr;
  engine_.RegisterEventHandlers(
      "FIM",
      [&](const Ids& ids, const Event& event) {
        seen = ids;
        seen_event = &event;
      },
      Nothing);
  engine_.RegisterEventHandlers(
      "IOC", [](const Ids&, const Event&) { FAIL() << "wrong tag"; }, Nothing);
  engine_.CallRuleMatched("FIM", {"a", "b"}, event_);
  EXPECT_EQ(seen, (Ids{"a", "b"}));
  EXPECT_EQ(seen_event, &event_);
}

TEST_F(EventRuleEngineTest, WhoKeepsEventsGetsTheEventItselfWhenNobodyElseNeedsIt) {
  Ids seen;
  std::unique_ptr<Event> kept;
  engine_.RegisterEventKeeper(
      "IOC",
      [&](const Ids& ids, std::unique_ptr<Event> event) {
        seen = ids;
        kept = std::move(event);
      },
      Nothing);
  event_.id = 7;
  engine_.CallRuleMatched("IOC", {"a", "b"}, event_);
  EXPECT_EQ(seen, (Ids{"a", "b"}));
  ASSERT_NE(kept, nullptr);
  EXPECT_NE(kept.get(), &event_);
  EXPECT_EQ(kept->GetId(), 7U);

  auto event = std::make_unique<fakes::FakeEvent>();
  const Event* const itself = event.get();
  engine_.CallRuleMatched("IOC", {"c"}, std::move(event));
  EXPECT_EQ(seen, Ids{"c"});
  EXPECT_EQ(kept.get(), itself);

  engine_.UnregisterEventHandlers("IOC");
  engine_.CallRuleMatched("IOC", {"d"}, std::make_unique<fakes::FakeEvent>());
  EXPECT_EQ(seen, Ids{"c"});
}

TEST_F(EventRuleEngineTest, WhoKeepsNothingSeesAnEventThatNobodyElseNeeds) {
  const Event* seen = nullptr;
  engine_.RegisterEventHandlers(
      "FIM", [&](const Ids&, const Event& event) { seen = &event; }, Nothing);
  auto event = std::make_unique<fakes::FakeEvent>();
  const Event* const itself = event.get();
  engine_.CallRuleMatched("FIM", {"a"}, std::move(event));
  EXPECT_EQ(seen, itself);
}

TEST_F(EventRuleEngineTest, RefusesAKeeperThatIsNone) {
  const auto ignore = [](const Ids&, const std::unique_ptr<Event>&) {};
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventKeeper("", ignore, Nothing); }),
            "EventRuleEngine::RegisterEventKeeper: 'tag' is empty");
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventKeeper("IOC", nullptr, Nothing); }),
            "EventRuleEngine::RegisterEventKeeper: 'eventKeeper' is invalid");
  EXPECT_EQ(ErrorOf([&] { engine_.RegisterEventKeeper("IOC", ignore, nullptr); }),
            "EventRuleEngine::RegisterEventKeeper: 'invalidatedEventHandler' is invalid");
}

TEST_F(EventRuleEngineTest, CallsOnlyTheNewestRegistrationAndNoneAfterItsEnd) {
  int old_calls = 0;
  int new_calls = 0;
  engine_.RegisterEventHandlers(
      "FIM", [&](const Ids&, const Event&) { ++old_calls; }, Nothing);
  engine_.RegisterEventHandlers(
      "FIM", [&](const Ids&, const Event&) { ++new_calls; }, Nothing);
  engine_.CallRuleMatched("FIM", {"a"}, event_);
  engine_.UnregisterEventHandlers("FIM");
  engine_.CallRuleMatched("FIM", {"a"}, event_);
  EXPECT_EQ(old_calls, 0);
  EXPECT_EQ(new_calls, 1);
}

TEST_F(EventRuleEngineTest, AHandlerMayRegisterAndUnregisterBecauseNoLockIsHeld) {
  engine_.RegisterEventHandlers(
      "FIM", [&](const Ids&, const Event&) { engine_.RegisterEventHandlers("IOC", Ignore, Nothing); }, Nothing);
  engine_.CallRuleMatched("FIM", {"a"}, event_);
  EXPECT_TRUE(log_.Has("Adding event handlers for 'IOC'"));
}

TEST_F(EventRuleEngineTest, UnregisteringFromTheHandlerItselfDoesNotWaitForItself) {
  int calls = 0;
  engine_.RegisterEventHandlers(
      "FIM",
      [&](const Ids&, const Event&) {
        ++calls;
        engine_.UnregisterEventHandlers("FIM");
      },
      Nothing);
  engine_.CallRuleMatched("FIM", {"a"}, event_);
  engine_.CallRuleMatched("FIM", {"a"}, event_);
  EXPECT_EQ(calls, 1);
}

TEST_F(EventRuleEngineTest, UnregisteringWaitsForAHandlerOnAnotherThread) {
  std::latch entered(1);
  std::latch may_leave(1);
  std::atomic<bool> left{false};
  engine_.RegisterEventHandlers(
      "FIM",
      [&](const Ids&, const Event&) {
        entered.count_down();
        may_leave.wait();
        left = true;
      },
      Nothing);
  std::thread events([&] { engine_.CallRuleMatched("FIM", {"a"}, event_); });
  entered.wait();

  std::promise<bool> unregistered;
  std::future<bool> result = unregistered.get_future();
  std::thread owner([&] {
    engine_.UnregisterEventHandlers("FIM");
    unregistered.set_value(left);
  });
  // It cannot have come back while the handler stands in the door.
  EXPECT_EQ(result.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  may_leave.count_down();
  EXPECT_TRUE(result.get());
  events.join();
  owner.join();
}

TEST_F(EventRuleEngineTest, UnregisteringDoesNotWaitForTheHandlerOfAnotherTag) {
  std::latch entered(1);
  std::latch may_leave(1);
  engine_.RegisterEventHandlers(
      "IOC",
      [&](const Ids&, const Event&) {
        entered.count_down();
        may_leave.wait();
      },
      Nothing);
  engine_.RegisterEventHandlers("FIM", Ignore, Nothing);
  std::thread events([&] { engine_.CallRuleMatched("IOC", {"a"}, event_); });
  entered.wait();
  engine_.UnregisterEventHandlers("FIM");  // would hang here
  may_leave.count_down();
  events.join();
}

TEST_F(EventRuleEngineTest, AHandlerThatThrowsHasLeftAllTheSame) {
  engine_.RegisterEventHandlers(
      "FIM", [](const Ids&, const Event&) { throw std::runtime_error("boom"); }, Nothing);
  EXPECT_EQ(ErrorOf([&] { engine_.CallRuleMatched("FIM", {"a"}, event_); }), "boom");
  std::thread owner([&] { engine_.UnregisterEventHandlers("FIM"); });  // would hang here
  owner.join();
}

TEST_F(EventRuleEngineTest, TellsEveryOwnerThatTheRulesAreGoneEvenIfOneFails) {
  int told = 0;
  engine_.RegisterEventHandlers("FIM", Ignore, [] { throw std::runtime_error("no kernel"); });
  engine_.RegisterEventHandlers("IOC", Ignore, [&] { ++told; });
  engine_.Invalidate();
  EXPECT_EQ(told, 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to restore the rules of 'FIM': no kernel")) << log_.All();
}

}  // namespace
}  // namespace zagent::edr
