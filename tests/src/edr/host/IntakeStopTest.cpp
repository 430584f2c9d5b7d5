// The event stage on the real rule engine, with everything due at once.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "src/audit/engine/RuleEngine.h"
#include "src/audit/parser/EventProcessingThread.h"
#include "src/audit/routing/OwnActivity.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;

class IntakeStopTest : public testing::Test {
 protected:
  static constexpr std::size_t kEvents = 100'000;

  IntakeStopTest() {
    engine_.AddRules("FIM", {fakes::FakeRule::Directory("rule", folder_.Path(), {EventType::Write})});
    // No line for every event of a hundred thousand.
    Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
    for (std::size_t i = 0; i < kEvents; ++i) engine_.ProcessEvent(WriteOf(static_cast<std::int32_t>(1000 + i % 100)));
    clock_.Advance(31s);
  }
  std::unique_ptr<fakes::FakeEvent> WriteOf(std::int32_t pid) {
    auto event = std::make_unique<fakes::FakeEvent>(EventType::Write, "Write", folder_ / "file");
    event->pid = pid;
    event->timestamp = common::util::ToNanoseconds(clock_.Now());
    return event;
  }
  void OnDelivery(std::function<void()> action) {
    engine_.RegisterEventHandlers(
        "FIM", [action = std::move(action)](const std::vector<std::string>&, const Event&) { action(); }, [] {});
  }
  [[nodiscard]] std::uint64_t Left() const { return counters_.Get(audit::IntakeCounters::Reason::LeftAtStop); }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  audit::IntakeCounters counters_;
  fakes::FakeAuditNetlink kernel_;
  audit::RuleEngine engine_{kernel_,
                            {400, "/opt/ostrel/bin/host-warden", 8192, "/opt/ostrel",
                             audit::internal::OwnActivity::DefaultSiblingNames(), kEvents},
                            counters_,
                            clock_};
  audit::EventProcessingThread stage_{engine_, 100,
                                      0,       audit::IntakeReports{counters_, [](const std::string&) {}},
                                      clock_,  common::LoadProbe{[] { return 0.0F; }, [] { return 0.0F; }, 4'000'000}};
};

TEST_F(IntakeStopTest, AStopDoesNotWaitForAHundredThousandEventsThatAreDue) {
  fakes::Gate delivering;
  fakes::Gate stop_is_set;
  std::atomic<int> delivered{0};
  OnDelivery([&] {
    ++delivered;
    if (delivered == 1) {
      delivering.Open();
      EXPECT_TRUE(stop_is_set.Await());
    } else {
      clock_.Advance(1s);  // each delivery of the last ones takes a second
    }
  });
  stage_.Start();
  std::vector<std::unique_ptr<Event>> first;
  first.push_back(WriteOf(1));
  stage_.AddEvents(std::move(first));
  ASSERT_TRUE(delivering.Await());
  auto stopping = std::async(std::launch::async, [this] { stage_.Stop(); });
  while (Left() == 0) {
    std::vector<std::unique_ptr<Event>> refused;
    refused.push_back(WriteOf(2));
    stage_.AddEvents(std::move(refused));
  }
  stop_is_set.Open();
  stopping.get();
  EXPECT_EQ(delivered, 1 + 5) << "one at the stop and five seconds of last ones";
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_WARNING, "RuleEngine: No time left to deliver 99994 file events that still rested"));
  EXPECT_GE(Left(), kEvents - 6);
}

TEST_F(IntakeStopTest, ALastDeliveryThatIsFastEnoughLosesNothing) {
  std::atomic<std::size_t> delivered{0};
  OnDelivery([&] { ++delivered; });
  stage_.Start();
  clock_.AwaitWaiters(1);
  stage_.Stop();
  EXPECT_EQ(delivered, kEvents);
  EXPECT_EQ(Left(), 0U);
}

}  // namespace
}  // namespace zagent::edr::host
