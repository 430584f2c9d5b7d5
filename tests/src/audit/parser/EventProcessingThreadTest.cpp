#include "src/audit/parser/EventProcessingThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/HeapTrim.h"
#include "src/edr/PartialEvent.h"
#include "src/edr/process/EventBytes.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/RecordingRuleEngine.h"

namespace zagent::audit {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kSecond = 1'000'000'000;

std::unique_ptr<fakes::FakeEvent> MakeEvent(std::uint32_t id, std::int64_t second, const std::string& action = "") {
  auto event = std::make_unique<fakes::FakeEvent>();
  event->id = id;
  event->timestamp = second * kSecond;
  event->action = action;
  return event;
}

// Tells where it is destroyed.
class MourningEvent final : public edr::PartialEvent {
 public:
  using Deaths = fakes::Mailbox<std::thread::id>;

  MourningEvent(Deaths& deaths, std::uint32_t id, std::size_t path_length)
      : deaths_(deaths), id_(id), file_("/" + std::string(path_length, 'x')) {}
  ~MourningEvent() override { deaths_.Put(std::this_thread::get_id()); }

  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Write; }
  [[nodiscard]] std::string GetAction() const override { return "Write"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::File; }
  [[nodiscard]] std::uint32_t GetId() const override { return id_; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return kSecond; }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return &file_; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  void Validate() override {}

 private:
  Deaths& deaths_;
  std::uint32_t id_;
  common::ImageInfo file_;
  std::string key_;
};

class EventProcessingThreadTest : public testing::Test {
 protected:
  // Threads first: what they use stands below.
  ~EventProcessingThreadTest() override { stage_.reset(); }

  void Add(std::vector<std::unique_ptr<edr::Event>> events) { stage_->AddEvents(std::move(events)); }
  void AddOne(std::uint32_t id) {
    std::vector<std::unique_ptr<edr::Event>> events;
    events.push_back(MakeEvent(id, 1));
    Add(std::move(events));
  }
  void AddMany(std::uint32_t first, std::size_t count) {
    std::vector<std::unique_ptr<edr::Event>> events;
    for (std::size_t i = 0; i < count; ++i) events.push_back(MakeEvent(first + static_cast<std::uint32_t>(i), 1));
    Add(std::move(events));
  }
  // What AddEvents gave back.
  std::vector<std::unique_ptr<edr::Event>> AddMourning(std::uint32_t first, std::size_t count,
                                                       std::size_t path_length = 10) {
    std::vector<std::unique_ptr<edr::Event>> events;
    for (std::size_t i = 0; i < count; ++i) {
      events.push_back(std::make_unique<MourningEvent>(deaths_, first + static_cast<std::uint32_t>(i), path_length));
    }
    stage_->AddEvents(std::move(events));
    return events;  // NOLINT(bugprone-use-after-move): what AddEvents left there
  }
  std::vector<std::uint32_t> Processed(std::size_t count) {
    std::vector<std::uint32_t> ids;
    for (std::size_t i = 0; i < count; ++i) ids.push_back(engine_.processed.Take().value_or(0));
    return ids;
  }

  IntakeReports Reports() {
    return {counters_, [this](const std::string& cause) { ended_.Put(cause); }};
  }
  [[nodiscard]] std::uint64_t Left() const { return counters_.Get(IntakeCounters::Reason::LeftAtStop); }

  MourningEvent::Deaths deaths_;
  fakes::LogCapture lines_;
  fakes::FakeClock clock_;
  IntakeCounters counters_;
  fakes::Mailbox<std::string> ended_;
  std::atomic<float> cpu_usage_{0};
  std::function<void()> on_measure_ = [] {};  // runs on the stage's thread; may throw
  fakes::RecordingRuleEngine engine_;
  static constexpr std::uint64_t kCpuLimit = 30;
  // A limit of no memory at all gives the smallest queue: 10,000 events.
  std::unique_ptr<EventProcessingThread> stage_ =
      std::make_unique<EventProcessingThread>(engine_, kCpuLimit, 0, Reports(), clock_,
                                              common::LoadProbe{[this]() -> float {
                                                                  on_measure_();
                                                                  return cpu_usage_;
                                                                },
                                                                [] { return 0.0F; }, 4'000'000});
};

TEST_F(EventProcessingThreadTest, TakesItsShareOfTheTotalMemory) {
  // 5 percent of 4 million KB are 200,000 KB.
  const EventProcessingThread stage(engine_, kCpuLimit, 5, Reports(), clock_,
                                    common::LoadProbe{[] { return 0.0F; }, [] { return 0.0F; }, 4'000'000});
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Setting processing queue size to 60000 events")) << lines_.All();
}

TEST_F(EventProcessingThreadTest, SortsABatchByTimeAndThenBySerial) {
  stage_->Start();
  std::vector<std::unique_ptr<edr::Event>> batch;
  batch.push_back(MakeEvent(9, 2));
  batch.push_back(MakeEvent(12, 1));
  batch.push_back(MakeEvent(3, 3));
  batch.push_back(MakeEvent(11, 1));
  Add(std::move(batch));
  EXPECT_THAT(Processed(4), ElementsAre(11, 12, 9, 3));
}

TEST_F(EventProcessingThreadTest, KeepsTheOrderOfTwoEventsOfOneSerial) {
  fakes::Mailbox<std::string> actions;
  engine_.on_process = [&](const edr::Event& event) { actions.Put(event.GetAction()); };
  stage_->Start();
  std::vector<std::unique_ptr<edr::Event>> batch;
  for (int i = 0; i < 20; ++i) {
    batch.push_back(MakeEvent(7, 1, "Delete " + std::to_string(i)));
    batch.push_back(MakeEvent(7, 1, "Rename " + std::to_string(i)));
  }
  Add(std::move(batch));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(actions.Take(), "Delete " + std::to_string(i));
    EXPECT_EQ(actions.Take(), "Rename " + std::to_string(i));
  }
  stage_->Stop();
}

TEST_F(EventProcessingThreadTest, CallsTheHousekeepingOnceASecondWithoutEvents) {
  stage_->Start();
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.EarliestDeadline() - clock_.Now(), std::chrono::seconds(1));
  clock_.Advance(std::chrono::milliseconds(999));
  EXPECT_TRUE(engine_.idled.IsEmpty());
  clock_.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(engine_.idled.Take(), true);
  clock_.AwaitWaiters(1);
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_EQ(engine_.idled.Take(), true);
}

TEST_F(EventProcessingThreadTest, AQuietSecondBehindATrimOfTheHeapFreesWhatIsKeptForTheThread) {
  fakes::Mailbox<bool> left;
  on_measure_ = [&] {
    fakes::LeaveKeptBlocks();
    left.Put(true);
  };
  stage_->Start();
  AddOne(1);
  EXPECT_TRUE(left.Take());
  clock_.AwaitWaiters(1);
  common::util::TrimHeap();
  const std::size_t before = fakes::HeapInUse();
  clock_.Advance(std::chrono::seconds(1));
  if (fakes::kKnowsItsHeap) {
    EXPECT_TRUE(fakes::HeapShrinksTo(before - fakes::kKeptBytes));
  }
  stage_->Stop();
}

TEST_F(EventProcessingThreadTest, AnEventEndsTheWaitAtOnce) {
  stage_->Start();
  clock_.AwaitWaiters(1);
  AddOne(5);  // the clock stands still
  EXPECT_THAT(Processed(1), ElementsAre(5));
}

TEST_F(EventProcessingThreadTest, AWallClockThatIsSetBackHoldsNeitherTheHousekeepingNorAnEvent) {
  stage_->Start();
  clock_.AwaitWaiters(1);
  clock_.SetWall(-std::chrono::hours(1));
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_EQ(engine_.idled.Take(), true);

  cpu_usage_ = kCpuLimit + 1;
  clock_.AwaitWaiters(1);
  AddMany(1, 2);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  while (clock_.EarliestDeadline() - clock_.Now() != std::chrono::milliseconds(10)) std::this_thread::yield();
  clock_.SetWall(-std::chrono::hours(1));
  clock_.Advance(std::chrono::milliseconds(10));
  EXPECT_THAT(Processed(1), ElementsAre(2));
}

TEST_F(EventProcessingThreadTest, WhatIsDueInTheEngineComesBeforeTheNextEvent) {
  fakes::Mailbox<std::string> calls;
  std::atomic<int> due{3};
  engine_.on_idle = [&] {
    calls.Put("due");
    return --due > 0;
  };
  engine_.on_process = [&](const edr::Event& event) { calls.Put(std::to_string(event.GetId())); };
  stage_->Start();
  AddOne(1);
  for (const char* call : {"due", "due", "due", "1"}) EXPECT_EQ(calls.Take(), call);
  stage_->Stop();
}

TEST_F(EventProcessingThreadTest, DeliversAllThatIsDueWhenNoEventComesAndPausesBetweenUnderAHighLoad) {
  std::atomic<int> due{3};
  engine_.on_idle = [&] { return --due > 0; };
  cpu_usage_ = kCpuLimit + 1;
  stage_->Start();
  clock_.AwaitWaiters(1);
  clock_.Advance(std::chrono::seconds(1));
  for (int portion = 1; portion < 3; ++portion) {
    EXPECT_EQ(engine_.idled.Take(), true);
    while (clock_.EarliestDeadline() - clock_.Now() != std::chrono::milliseconds(10)) std::this_thread::yield();
    EXPECT_TRUE(engine_.idled.IsEmpty()) << "no pause behind portion " << portion;
    clock_.Advance(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(engine_.idled.Take(), true);
  stage_->Stop();
}

TEST_F(EventProcessingThreadTest, StopIsNoticedBetweenTwoPortionsOfWhatIsDue) {
  fakes::Gate in_third_portion;
  fakes::Gate stop_is_set;
  std::atomic<int> portions{0};
  engine_.on_idle = [&] {
    if (++portions == 3) {
      in_third_portion.Open();
      EXPECT_TRUE(stop_is_set.Await());
    }
    return portions < 100'000;
  };
  stage_->Start();
  AddOne(1);
  ASSERT_TRUE(in_third_portion.Await());
  auto stopping = std::async(std::launch::async, [this] { stage_->Stop(); });
  while (Left() == 0) AddOne(2);  // refused once the stage is to stop
  stop_is_set.Open();
  stopping.get();
  EXPECT_EQ(portions, 3);
  EXPECT_TRUE(engine_.processed.IsEmpty());
}

TEST_F(EventProcessingThreadTest, AFailingEventOrHousekeepingCostsNoOther) {
  engine_.on_process = [](const edr::Event& event) {
    if (event.GetId() == 2) throw std::runtime_error("no such process");
  };
  engine_.on_idle = []() -> bool { throw std::runtime_error("cleaner failed"); };
  stage_->Start();
  clock_.AwaitWaiters(1);
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_EQ(engine_.idled.Take(), true);
  AddMany(1, 3);
  EXPECT_THAT(Processed(2), ElementsAre(1, 3));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "Failed to process event: no such process"));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "Idle housekeeping failed: cleaner failed"));
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotProcessed), 1U);
}

TEST_F(EventProcessingThreadTest, AHighCpuLoadSlowsEachEventByTenMillisecondsAndLosesNone) {
  cpu_usage_ = kCpuLimit + 1;
  stage_->Start();
  AddMany(1, 3);
  for (std::uint32_t id = 1; id <= 3; ++id) {
    EXPECT_THAT(Processed(1), ElementsAre(id));
    while (clock_.EarliestDeadline() - clock_.Now() != std::chrono::milliseconds(10)) std::this_thread::yield();
    EXPECT_TRUE(engine_.processed.IsEmpty()) << "event " << id + 1 << " did not wait";
    clock_.Advance(std::chrono::milliseconds(10));
  }
}

TEST_F(EventProcessingThreadTest, ALoadAtTheLimitIsNotAboveIt) {
  cpu_usage_ = kCpuLimit;
  stage_->Start();
  AddMany(1, 3);
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));  // the clock stands still
}

TEST_F(EventProcessingThreadTest, WhatTheEngineIsDoneWithGoesBackToTheThreadThatMadeIt) {
  stage_->Start();
  EXPECT_THAT(AddMourning(1, 3), IsEmpty());
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
  clock_.AwaitWaiters(1);  // for the next batch
  EXPECT_TRUE(deaths_.IsEmpty());
  auto done = AddMourning(4, 1);
  EXPECT_THAT(done, testing::SizeIs(3));
  done.clear();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(deaths_.Take(), std::this_thread::get_id());
}

TEST_F(EventProcessingThreadTest, WhatTheEngineKeepsIsNotGivenBack) {
  engine_.keep = [](const edr::Event& event) { return event.GetId() == 2; };
  stage_->Start();
  (void)AddMourning(1, 3);
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
  clock_.AwaitWaiters(1);
  std::vector<std::uint32_t> ids;
  for (const auto& event : AddMourning(4, 1)) {
    if (event) ids.push_back(event->GetId());
  }
  EXPECT_THAT(ids, ElementsAre(1, 3));
}

TEST_F(EventProcessingThreadTest, WhatNobodyComesForIsGoneAfterAQuietSecond) {
  stage_->Start();
  (void)AddMourning(1, 3);
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
  clock_.AwaitWaiters(1);
  EXPECT_TRUE(deaths_.IsEmpty());
  clock_.Advance(std::chrono::seconds(1));
  for (int i = 0; i < 3; ++i) EXPECT_NE(deaths_.Take(), std::this_thread::get_id());
  clock_.AwaitWaiters(1);
  EXPECT_THAT(AddMourning(4, 1), IsEmpty());
}

TEST_F(EventProcessingThreadTest, WhatALargeBatchHoldsIsFreeAsSoonAsItCountsNoMore) {
  fakes::Gate in_last_event;
  fakes::Gate go_on;
  engine_.on_process = [&](const edr::Event& event) {
    if (event.GetId() != 1'000) return;
    in_last_event.Open();
    EXPECT_TRUE(go_on.Await());
  };
  stage_->Start();
  (void)AddMourning(1, 1'000, 5'149);
  ASSERT_TRUE(in_last_event.Await());
  for (int i = 0; i < 999; ++i)
    ASSERT_NE(deaths_.Take().value_or(std::this_thread::get_id()), std::this_thread::get_id());
  EXPECT_TRUE(deaths_.IsEmpty());
  go_on.Open();
  EXPECT_TRUE(deaths_.Take().has_value());
  clock_.AwaitWaiters(1);
  EXPECT_THAT(AddMourning(2'000, 1), IsEmpty());
}

TEST_F(EventProcessingThreadTest, AStopKeepsNothingForTheThreadThatMadeIt) {
  stage_->Start();
  (void)AddMourning(1, 3);
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
  clock_.AwaitWaiters(1);
  EXPECT_TRUE(deaths_.IsEmpty());
  stage_->Stop();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(deaths_.Take().has_value());
}

TEST_F(EventProcessingThreadTest, AtItsBoundTheProducerWaitsUntilTheQueueWasTaken) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event& event) {
    if (event.GetId() == 1) gate.wait();
  };
  stage_->Start();
  AddOne(1);
  // The stage holds on to event 1, so what follows fills the queue.
  while (!lines_.Has("Audit active event processing queue size: 1 events")) std::this_thread::yield();
  AddMany(2, 10'000);
  auto producer = std::async(std::launch::async, [this] { AddOne(20'000); });
  while (!lines_.Has(Poco::Message::PRIO_WARNING, "Processing queue threshold hit. Stopped adding events to que")) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(lines_.Has("Enabling the processing queue"));
  open.set_value();
  producer.get();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_INFORMATION, "Enabling the processing queue"));
  EXPECT_EQ(Processed(10'002).back(), 20'000U) << "nothing was lost";
}

TEST_F(EventProcessingThreadTest, FewerEventsFillTheQueueWhenTheyAreLarge) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event& event) {
    if (event.GetId() == 1) gate.wait();
  };
  stage_->Start();
  AddOne(1);
  while (!lines_.Has("Audit active event processing queue size: 1 events")) std::this_thread::yield();
  // Ten times as large as an ordinary one, each.
  std::vector<std::unique_ptr<edr::Event>> large;
  for (int i = 0; i < 1'000; ++i) {
    large.push_back(std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", "/" + std::string(5'050, 'x')));
  }
  Add(std::move(large));
  auto producer = std::async(std::launch::async, [this] { AddOne(20'000); });
  while (!lines_.Has("Processing queue threshold hit. Stopped adding events to que")) std::this_thread::yield();
  open.set_value();
  producer.get();
  AddMany(30'000, 10);
  EXPECT_EQ(Processed(1'012).back(), 30'009U);
  EXPECT_EQ(lines_.Count("Processing queue threshold hit."), 1) << "what was taken fills it no more";
}

TEST_F(EventProcessingThreadTest, BelowItsBoundTheProducerDoesNotWaitEvenIfOneCallPassesTheBound) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  stage_->Start();
  AddOne(1);
  while (!lines_.Has("Audit active event processing queue size: 1 events")) std::this_thread::yield();
  AddMany(2, 9'999);
  AddMany(20'000, 50);
  EXPECT_FALSE(lines_.Has("Processing queue threshold hit."));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Audit event processing buffer queue size: 10049 events"));
  open.set_value();
}

TEST_F(EventProcessingThreadTest, StopReleasesAProducerThatWaitsAtTheBound) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  stage_->Start();
  AddOne(1);
  while (!lines_.Has("Audit active event processing queue size: 1 events")) std::this_thread::yield();
  AddMany(2, 10'000);
  auto producer = std::async(std::launch::async, [this] { AddOne(20'000); });
  while (!lines_.Has("Processing queue threshold hit.")) std::this_thread::yield();
  auto stopping = std::async(std::launch::async, [this] { stage_->Stop(); });
  producer.get();
  open.set_value();
  stopping.get();
  EXPECT_THAT(Processed(1), ElementsAre(1));
  EXPECT_TRUE(engine_.processed.IsEmpty()) << "what was queued at the stop is dropped";
  EXPECT_EQ(Left(), 10'001U) << "and counted, with what the producer still brought";
}

TEST_F(EventProcessingThreadTest, CountsWhatAStopLeavesOfTheBatchAtHand) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  stage_->Start();
  AddMany(1, 5);
  while (!lines_.Has("Audit active event processing queue size: 5 events")) std::this_thread::yield();
  auto stopping = std::async(std::launch::async, [this] { stage_->Stop(); });
  while (Left() == 0) AddOne(9);
  const std::uint64_t refused = Left();
  EXPECT_EQ(refused, 1U);
  open.set_value();
  stopping.get();
  EXPECT_THAT(Processed(1), ElementsAre(1));
  EXPECT_GE(Left(), refused + 4);
}

TEST_F(EventProcessingThreadTest, KnowsHowManyEventsItHolds) {
  fakes::Gate in_second_event;
  fakes::Gate go_on;
  engine_.on_process = [&](const edr::Event& event) {
    if (event.GetId() != 2) return;
    in_second_event.Open();
    EXPECT_TRUE(go_on.Await());
  };
  stage_->Start();
  AddMany(1, 5);
  ASSERT_TRUE(in_second_event.Await());
  EXPECT_EQ(stage_->GetQueuedEvents(), 4U) << "the one at hand and those behind it";
  EXPECT_EQ(stage_->GetHeldBytes(), 4 * edr::kOrdinaryEventBytes);
  AddMany(6, 3);
  EXPECT_EQ(stage_->GetQueuedEvents(), 7U) << "and those that wait for the next batch";
  std::vector<std::unique_ptr<edr::Event>> large;
  large.push_back(std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", std::string(1'100, 'p')));
  Add(std::move(large));
  EXPECT_EQ(stage_->GetHeldBytes(), 8 * edr::kOrdinaryEventBytes + 2'000);
  go_on.Open();
  EXPECT_THAT(Processed(9), testing::SizeIs(9));
  stage_->Stop();
  EXPECT_EQ(stage_->GetQueuedEvents(), 0U);
  EXPECT_EQ(stage_->GetHeldBytes(), 0U);
}

TEST_F(EventProcessingThreadTest, HoldsNoEventAfterAStopInTheMiddleOfABatch) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  stage_->Start();
  AddMany(1, 5);
  while (!lines_.Has("Audit active event processing queue size: 5 events")) std::this_thread::yield();
  AddMany(6, 3);
  auto stopping = std::async(std::launch::async, [this] { stage_->Stop(); });
  while (Left() == 0) AddOne(9);
  open.set_value();
  stopping.get();
  EXPECT_EQ(stage_->GetQueuedEvents(), 0U);
  EXPECT_EQ(stage_->GetHeldBytes(), 0U);
}

TEST_F(EventProcessingThreadTest, AtTheStopTheEngineDeliversWhatStillWaitsInIt) {
  std::thread::id processed_on;
  std::thread::id delivered_on;
  engine_.on_process = [&](const edr::Event&) { processed_on = std::this_thread::get_id(); };
  engine_.on_stop = [&] { delivered_on = std::this_thread::get_id(); };
  stage_->Start();
  AddOne(1);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  stage_->Stop();
  EXPECT_EQ(engine_.stopped.Take(), std::chrono::seconds(5));
  EXPECT_EQ(delivered_on, processed_on);
  EXPECT_TRUE(ended_.IsEmpty()) << "an end that was asked for";
}

TEST_F(EventProcessingThreadTest, AFailingLastDeliveryIsALineAndTheStopSucceeds) {
  engine_.on_stop = [] { throw std::runtime_error("no handler"); };
  stage_->Start();
  clock_.AwaitWaiters(1);
  stage_->Stop();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_ERROR, "Last delivery failed: no handler"));
}

TEST_F(EventProcessingThreadTest, AStoppedStageNeverBlocksAndProcessesNothing) {
  AddMany(1, 10'001);
  AddOne(2);
  stage_->Start();
  stage_->Stop();
  AddMany(1, 10'001);
  AddOne(2);
  stage_->Start();
  AddOne(7);
  EXPECT_THAT(Processed(1), ElementsAre(7));
}

TEST_F(EventProcessingThreadTest, StopWakesTheThreadFromItsWait) {
  stage_->Start();
  clock_.AwaitWaiters(1);
  stage_->Stop();  // the clock stands still
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Started parsed events processing thread"));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_INFORMATION, "Stopping parsed events processing thread"));
  EXPECT_TRUE(engine_.idled.IsEmpty());
  stage_->Stop();
  EXPECT_EQ(lines_.Count("Stopping parsed events processing thread"), 1);
}

TEST_F(EventProcessingThreadTest, StopWakesTheThreadFromItsCpuPause) {
  cpu_usage_ = 100;
  stage_->Start();
  AddMany(1, 2);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  stage_->Stop();  // the clock stands still
  EXPECT_TRUE(engine_.processed.IsEmpty());
}

TEST_F(EventProcessingThreadTest, RunsOnceAtATime) {
  stage_->Start();
  try {
    stage_->Start();
    FAIL() << "started twice";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Parsed events processing thread already running");
  }
}

TEST_F(EventProcessingThreadTest, TellsWhatItDiedOfAndRunsAgainAfterAStop) {
  on_measure_ = [] { throw std::runtime_error("no /proc"); };
  stage_->Start();
  AddOne(1);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  EXPECT_EQ(ended_.Take(), "Parsed events processing thread: no /proc");
  EXPECT_TRUE(engine_.stopped.Take().has_value()) << "what waits in the engine is delivered all the same";
  EXPECT_THROW(stage_->Stop(), std::runtime_error);
  on_measure_ = [] {};
  stage_->Start();
  AddOne(2);
  EXPECT_THAT(Processed(1), ElementsAre(2));
  EXPECT_TRUE(ended_.IsEmpty());
}

TEST_F(EventProcessingThreadTest, ADeadStageReleasesItsProducerAndNeverBlocksItAgain) {
  fakes::Gate producer_waits;
  on_measure_ = [&] {
    EXPECT_TRUE(producer_waits.Await());
    throw 42;  // NOLINT(hicpp-exception-baseclass): not even what every exception should be
  };
  stage_->Start();
  AddOne(1);
  while (!lines_.Has("Audit active event processing queue size: 1 events")) std::this_thread::yield();
  AddMany(2, 10'000);
  auto producer = std::async(std::launch::async, [this] { AddOne(20'000); });
  while (!lines_.Has("Processing queue threshold hit.")) std::this_thread::yield();
  producer_waits.Open();
  producer.get();
  EXPECT_EQ(ended_.Take(), "Parsed events processing thread: unknown failure");
  AddMany(30'000, 10'001);
  AddMany(50'000, 10'001);
  EXPECT_THROW(stage_->Stop(), int);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  EXPECT_TRUE(engine_.processed.IsEmpty());
  EXPECT_EQ(Left(), 10'001U + 20'002U);
}

TEST_F(EventProcessingThreadTest, TheStageThatDiesInTheMiddleOfABatchCountsItsRest) {
  std::atomic<int> measured{0};
  on_measure_ = [&] {
    if (++measured == 2) throw std::runtime_error("no /proc");
  };
  stage_->Start();
  AddMany(1, 5);
  EXPECT_EQ(ended_.Take(), "Parsed events processing thread: no /proc");
  EXPECT_THROW(stage_->Stop(), std::runtime_error);
  EXPECT_THAT(Processed(2), ElementsAre(1, 2));
  EXPECT_EQ(Left(), 3U);
}

}  // namespace
}  // namespace zagent::audit
