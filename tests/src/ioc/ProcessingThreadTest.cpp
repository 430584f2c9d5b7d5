#include "src/ioc/ProcessingThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/src/util/HeapTrim.h"
#include "src/edr/process/EventBytes.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcess.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::ioc::internal {
namespace {

using fakes::Eventually;
using fakes::Gate;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

constexpr std::uint32_t kNone = 0;  // stands for a call without an event

class ProcessingThreadTest : public testing::Test {
 protected:
  // The thread first: what it uses stands below.
  ~ProcessingThreadTest() override { thread_.reset(); }

  void Enqueue(std::uint32_t id) {
    auto event = std::make_unique<fakes::FakeEvent>();
    event->id = id;
    thread_->Enqueue(std::move(event));
  }
  void EnqueueMany(std::uint64_t count) {
    for (std::uint64_t i = 1; i <= count; ++i) Enqueue(static_cast<std::uint32_t>(i));
  }
  // The next `count` ids that were processed, calls without an event left out.
  std::vector<std::uint32_t> Processed(std::size_t count) {
    std::vector<std::uint32_t> ids;
    while (ids.size() < count) {
      const std::optional<std::uint32_t> id = processed_.Take();
      if (!id) break;
      if (*id != kNone) ids.push_back(*id);
    }
    return ids;
  }
  // The process used all processors for a second, which passes.
  void UseAllProcessors() {
    ticks_ += static_cast<std::uint64_t>(2 * sysconf(_SC_NPROCESSORS_CONF) * sysconf(_SC_CLK_TCK));
    process_.SetCpuTicks(ticks_);
    clock_.Advance(seconds(2));
  }

  fakes::LogCapture log_;
  fakes::FakeProcess process_;
  fakes::FakeClock clock_;
  std::uint64_t ticks_ = 0;
  fakes::Mailbox<std::uint32_t> processed_;
  std::function<void(const edr::Event*)> on_process_ = [](const edr::Event*) {};  // on the thread
  std::atomic<std::uint64_t> dropped_{0};
  // A limit of no memory at all gives the smallest queue: 10,000 events.
  std::unique_ptr<ProcessingThread> thread_ = std::make_unique<ProcessingThread>(
      [this](std::unique_ptr<edr::Event> event) {
        on_process_(event.get());
        processed_.Put(event ? event->GetId() : kNone);
      },
      [this](std::uint64_t events) { dropped_ += events; }, 20, 0, clock_, process_.ProcRoot());
};

TEST_F(ProcessingThreadTest, ProcessesWhatComesOldestFirstOnAThreadOfItsOwn) {
  std::thread::id thread;
  std::string name_in_proc;
  on_process_ = [&](const edr::Event*) {
    thread = std::this_thread::get_id();
    std::ifstream("/proc/thread-self/comm") >> name_in_proc;
  };
  for (const std::uint32_t id : {7, 5, 9}) Enqueue(id);
  EXPECT_EQ(thread_->GetQueuedEvents(), 3U);
  thread_->Start();
  EXPECT_THAT(Processed(3), ElementsAre(7, 5, 9));
  thread_->Stop();
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_EQ(name_in_proc, "edr-ioc");
  EXPECT_EQ(thread_->GetQueuedEvents(), 0U);
  EXPECT_TRUE(log_.Has("Starting EdrProcessingThread ..."));
}

TEST_F(ProcessingThreadTest, ATurnBeginsBeforeWhatHasComeByThen) {
  constexpr std::uint32_t kTurn = 1'000'000;
  const auto make = [&] {
    return std::make_unique<ProcessingThread>(
        [this](std::unique_ptr<edr::Event> event) {
          on_process_(event.get());
          processed_.Put(event ? event->GetId() : kNone);
        },
        [](std::uint64_t) {}, 20, 0, clock_, process_.ProcRoot(), [this] { processed_.Put(kTurn); });
  };
  thread_ = make();
  on_process_ = [this](const edr::Event* event) {
    if (event != nullptr && event->GetId() == 1) Enqueue(3);
  };
  Enqueue(1);
  Enqueue(2);
  thread_->Start();
  EXPECT_THAT(Processed(5), ElementsAre(kTurn, 1, 2, kTurn, 3));
  thread_.reset();
  while (!processed_.IsEmpty()) (void)processed_.Take();

  thread_ = make();
  Enqueue(4);
  thread_.reset();
  EXPECT_THAT(Processed(2), ElementsAre(kTurn, 4)) << "the last one, at the end";
}

TEST_F(ProcessingThreadTest, WithoutEventsItCallsTheProcessorWithNoneEverySecond) {
  thread_->Start();
  EXPECT_EQ(processed_.Take(), kNone);
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.EarliestDeadline() - clock_.Now(), seconds(1));
  EXPECT_TRUE(processed_.IsEmpty());
  clock_.Advance(seconds(1));
  EXPECT_EQ(processed_.Take(), kNone);
}

TEST_F(ProcessingThreadTest, ATurnWithoutEventsBehindATrimOfTheHeapFreesWhatIsKeptForTheThread) {
  on_process_ = [](const edr::Event* event) {
    if (event != nullptr) fakes::LeaveKeptBlocks();
  };
  thread_->Start();
  Enqueue(1);
  EXPECT_THAT(Processed(1), ElementsAre(1));
  clock_.AwaitWaiters(1);
  common::util::TrimHeap();
  const std::size_t before = fakes::HeapInUse();
  clock_.Advance(seconds(1));
  if (fakes::kKnowsItsHeap) {
    EXPECT_TRUE(fakes::HeapShrinksTo(before - fakes::kKeptBytes));
  }
}

TEST_F(ProcessingThreadTest, BehindAnEventTheNextTurnComesAfterATenthOfASecond) {
  thread_->Start();
  EXPECT_EQ(processed_.Take(), kNone);
  clock_.AwaitWaiters(1);
  Enqueue(7);
  EXPECT_EQ(processed_.Take(), 7U);
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.EarliestDeadline() - clock_.Now(), milliseconds(100));
  clock_.Advance(milliseconds(100));
  EXPECT_EQ(processed_.Take(), kNone);
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.EarliestDeadline() - clock_.Now(), seconds(1)) << "that one has found none";
}

TEST_F(ProcessingThreadTest, AnEventEndsTheWaitAtOnce) {
  thread_->Start();
  clock_.AwaitWaiters(1);
  Enqueue(5);  // the clock stands still
  EXPECT_THAT(Processed(1), ElementsAre(5));
}

TEST_F(ProcessingThreadTest, WhoeverHandsAnEventOverDoesNotWaitForTheOneAtHand) {
  Gate busy;
  Gate go_on;
  on_process_ = [&](const edr::Event* event) {
    if (event == nullptr || event->GetId() != 1) return;
    busy.Open();
    EXPECT_TRUE(go_on.Await());
  };
  thread_->Start();
  Enqueue(1);
  ASSERT_TRUE(busy.Await());
  Enqueue(2);
  EXPECT_EQ(thread_->GetQueuedEvents(), 1U);
  go_on.Open();
  EXPECT_THAT(Processed(2), ElementsAre(1, 2));
}

TEST_F(ProcessingThreadTest, BeyondItsBoundEventsAreDroppedCountedAndToldInOneWarningAMinute) {
  ASSERT_EQ(thread_->GetLimit(), 10'000U);
  EnqueueMany(10'003);
  EXPECT_EQ(dropped_, 3U);
  EXPECT_EQ(thread_->GetQueuedEvents(), 10'000U);
  thread_->Start();
  EXPECT_EQ(Processed(10'000).back(), 10'000U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING,
                       "[IOC]: ProcessingThread: Dropped 3 events: more than 10000 were waiting, or as many bytes"))
      << log_.All();
  thread_->Stop();
  EnqueueMany(10'001);
  thread_->Start();
  Processed(10'000);
  EXPECT_EQ(dropped_, 4U);
  EXPECT_EQ(log_.Count("ProcessingThread: Dropped"), 1) << "the minute is not over";
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(60));
  EXPECT_TRUE(Eventually([&] { return log_.Has("ProcessingThread: Dropped 1 events"); })) << log_.All();
}

TEST_F(ProcessingThreadTest, HoldsNoMoreBytesThanSoManyOrdinaryEventsHave) {
  constexpr std::uint64_t kBytes = 110 * edr::kOrdinaryEventBytes;
  const auto enqueue_large = [this](std::uint32_t id) {
    const std::string path(100 + (kBytes - edr::kOrdinaryEventBytes) / 2, 'p');
    auto event = std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", path);
    event->id = id;
    thread_->Enqueue(std::move(event));
  };
  for (std::uint32_t id = 1; id <= 93; ++id) enqueue_large(id);
  EXPECT_EQ(dropped_, 2U) << "ninety of them have fewer bytes than 10,000 ordinary events, and 91 have more";
  EXPECT_EQ(thread_->GetQueuedBytes(), 91 * kBytes);
  thread_->Start();
  EXPECT_EQ(Processed(91).back(), 91U);
  thread_->Stop();
  EXPECT_EQ(thread_->GetQueuedBytes(), 0U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "ProcessingThread: Dropped 2 events")) << log_.All();
  enqueue_large(94);
  EXPECT_EQ(thread_->GetQueuedBytes(), kBytes) << "there is room again";
}

TEST_F(ProcessingThreadTest, TheEventsOfTheTurnAtHandCountToTheBound) {
  Gate busy;
  Gate go_on;
  on_process_ = [&](const edr::Event* event) {
    if (event == nullptr || event->GetId() != 1) return;
    busy.Open();
    EXPECT_TRUE(go_on.Await());
  };
  EnqueueMany(10'000);
  thread_->Start();
  ASSERT_TRUE(busy.Await());
  Enqueue(10'001);  // in the place of the first
  Enqueue(10'002);
  EXPECT_EQ(dropped_, 1U);
  go_on.Open();
  EXPECT_EQ(Processed(10'001).back(), 10'001U);
}

TEST_F(ProcessingThreadTest, TheBoundFollowsTheAllowedMemory) {
  // 50 percent of the memory of the fake machine.
  const ProcessingThread thread([](std::unique_ptr<edr::Event>) {}, [](std::uint64_t) {}, 20, 50, clock_,
                                process_.ProcRoot());
  EXPECT_EQ(thread.GetLimit(), 100'000U);
}

TEST_F(ProcessingThreadTest, AStopInTheMidstOfATurnEndsBehindItsLastEvent) {
  Gate busy;
  Gate go_on;
  on_process_ = [&](const edr::Event* event) {
    if (event == nullptr || event->GetId() != 1) return;
    busy.Open();
    EXPECT_TRUE(go_on.Await());
  };
  for (const std::uint32_t id : {1, 2, 3}) Enqueue(id);
  thread_->Start();
  ASSERT_TRUE(busy.Await());
  std::thread stopping([&] { thread_->Stop(); });
  EXPECT_TRUE(Eventually([&] { return thread_->IsStopped(); }));
  go_on.Open();
  stopping.join();
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
}

// The first event of the turn waits; each of its events takes two seconds.
TEST_F(ProcessingThreadTest, AnEndWaitsForTheTurnAtHandAndThenForASetTimeForWhatCameMeanwhile) {
  Gate busy;
  Gate go_on;
  on_process_ = [&](const edr::Event* event) {
    if (event == nullptr) return;
    if (event->GetId() == 1) {
      busy.Open();
      EXPECT_TRUE(go_on.Await());
    }
    clock_.Advance(seconds(2));
  };
  for (const std::uint32_t id : {1, 2, 3, 4, 5}) Enqueue(id);
  thread_->Start();
  ASSERT_TRUE(busy.Await());
  for (const std::uint32_t id : {6, 7, 8, 9, 10}) Enqueue(id);
  std::thread ending([&] { thread_->Stop(); });
  EXPECT_TRUE(Eventually([&] { return thread_->IsStopped(); }));
  go_on.Open();
  ending.join();
  EXPECT_THAT(Processed(5), ElementsAre(1, 2, 3, 4, 5)) << "ten seconds, and none of them is lost";
  EXPECT_EQ(thread_->GetQueuedEvents(), 5U);
  thread_.reset();
  EXPECT_THAT(Processed(3), ElementsAre(6, 7, 8));
  EXPECT_TRUE(processed_.IsEmpty());
  EXPECT_EQ(dropped_, 2U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "[IOC]: ProcessingThread: Left 2 events at the stop"));
}

TEST_F(ProcessingThreadTest, WhatHasComeBeforeTheEndIsProcessed) {
  thread_->Start();
  thread_->Stop();
  for (const std::uint32_t id : {1, 2}) Enqueue(id);
  thread_.reset();
  EXPECT_THAT(Processed(2), ElementsAre(1, 2));
  EXPECT_EQ(dropped_, 0U);
}

TEST_F(ProcessingThreadTest, AnEndThatTakesTooLongDropsTheRestAndSaysSo) {
  on_process_ = [&](const edr::Event*) { clock_.Advance(seconds(2)); };
  for (std::uint32_t id = 1; id <= 5; ++id) Enqueue(id);
  thread_.reset();
  EXPECT_THAT(Processed(3), ElementsAre(1, 2, 3));
  EXPECT_EQ(dropped_, 2U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "[IOC]: ProcessingThread: Left 2 events at the stop"));
}

TEST_F(ProcessingThreadTest, AFailureLosesTheEventAtHandAlone) {
  on_process_ = [](const edr::Event* event) {
    if (event != nullptr && event->GetId() == 2) throw std::runtime_error("no such thing");
  };
  for (const std::uint32_t id : {1, 2, 3}) Enqueue(id);
  thread_->Start();
  EXPECT_THAT(Processed(1), ElementsAre(1));
  clock_.AwaitWaiters(1);
  clock_.Advance(milliseconds(100));
  EXPECT_THAT(Processed(1), ElementsAre(3));
  EXPECT_TRUE(log_.Has("Uncaught exception in EdrProcessingThread : no such thing"));
}

TEST_F(ProcessingThreadTest, WhileTheProcessUsesTooMuchItPausesBehindEachEvent) {
  UseAllProcessors();
  for (const std::uint32_t id : {1, 2, 3}) Enqueue(id);
  thread_->Start();
  EXPECT_THAT(Processed(1), ElementsAre(1));
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.EarliestDeadline() - clock_.Now(), milliseconds(10));
  EXPECT_TRUE(processed_.IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Active event processing queue size: 2")) << log_.All();
  clock_.Advance(milliseconds(10));
  EXPECT_THAT(Processed(1), ElementsAre(2));
  thread_->Stop();
  EXPECT_THAT(Processed(1), ElementsAre(3)) << "a stopped thread does not pause";
}

}  // namespace
}  // namespace zagent::ioc::internal
