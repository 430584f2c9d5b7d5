#include "src/audit/parser/ParserThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/HeapTrim.h"
#include "src/audit/channels/KernelIOChannel.h"
#include "tests/fakes/AuditLog.h"
#include "tests/fakes/ChannelLog.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/RecordingRuleEngine.h"
#include "tests/fakes/ScriptedAuditSource.h"
#include "tests/fakes/ScriptedEventFactory.h"

namespace zagent::audit {
namespace {

using fakes::AuditLog;
using fakes::ToBytes;
using testing::ElementsAre;
using Reason = IntakeCounters::Reason;

constexpr std::size_t kMiB = 1'048'576;
constexpr std::size_t kBurst = 65'536;
constexpr std::chrono::milliseconds kFlushDelay{100};

// A channel without a thread: a test reads from it by hand.
class HandChannel final : public IOChannel {
 public:
  HandChannel() : IOChannel(1, 0) {}
  void Deliver(Bytes data) { OnRead(std::move(data)); }
  void Deliver(const std::string& text) { OnRead(ToBytes(text)); }
};

// Lines that are no records.
IOChannel::Bytes Filler(std::size_t size) {
  IOChannel::Bytes bytes(size, 'x');
  for (std::size_t i = 8191; i < size; i += 8192) bytes[i] = '\n';
  bytes.back() = '\n';
  return bytes;
}

class ParserThreadTest : public testing::Test {
 protected:
  ParserThreadTest() {
    parser_ = std::make_unique<ParserThread>(channel_, engine_, kCpuLimit, 0, Reports(), clock_,
                                             ParserThread::Seams{factory_.Get(),
                                                                 [this] {
                                                                   // The first one is the parser's own.
                                                                   const bool parser = probes_++ == 0;
                                                                   return parser ? ParserProbe() : StageProbe();
                                                                 },
                                                                 looks_});
  }
  // Threads first: what they use stands below.
  ~ParserThreadTest() override { parser_.reset(); }

  common::LoadProbe ParserProbe() {
    return {[this]() -> float {
              if (cpu_fails_) throw std::runtime_error("no /proc");
              return pause_at_.count(++measured_) != 0 ? 100.0F : cpu_usage_.load();
            },
            [] { return 0.0F; }, 4'000'000};
  }
  common::LoadProbe StageProbe() {
    return {[this]() -> float {
              if (stage_fails_) throw std::runtime_error("no /proc");
              return 0;
            },
            [] { return 0.0F; }, 4'000'000};
  }
  static common::LoadProbe IdleProbe() {
    return {[] { return 0.0F; }, [] { return 0.0F; }, 4'000'000};
  }
  IntakeReports Reports() {
    return {counters_, [this](const std::string& cause) { ended_.Put(cause); }, [this] { ++resumed_; }};
  }
  // Without its command line: what is there makes an event at the flush.
  [[nodiscard]] std::string Unfinished(unsigned serial) const {
    const std::string event = log_.Event(serial);
    return event.substr(0, event.find("type=PROCTITLE"));
  }
  // Events of serial 1 to `count`.
  [[nodiscard]] std::string ManyEvents(int count) const {
    std::string events;
    const std::string one = log_.Event(AuditLog::kMkdir);
    for (int serial = 1; serial <= count; ++serial) {
      std::string event = one.substr(0, one.find('\n') + 1);
      event = fakes::Replaced(event, ":27): ", ":" + std::to_string(serial) + "): ");
      events += event + "type=PROCTITLE msg=audit(1795162409.432:" + std::to_string(serial) + "): proctitle=\"x\"\n";
    }
    return events;
  }
  std::vector<std::uint32_t> Processed(std::size_t count) {
    std::vector<std::uint32_t> ids;
    for (std::size_t i = 0; i < count; ++i) ids.push_back(engine_.processed.Take().value_or(0));
    return ids;
  }
  // The parser waits for more of what it holds. The second stage waits for a full second.
  void AwaitFlushWait() {
    while (clock_.EarliestDeadline() - clock_.Now() != kFlushDelay) std::this_thread::yield();
  }
  void AwaitCpuPauses(int count) {
    while (lines_.Count("Audit parser thread: Pausing thread") < count) std::this_thread::yield();
    clock_.AwaitWaiters(2);
  }

  static constexpr std::uint64_t kCpuLimit = 30;
  fakes::LogCapture lines_;
  AuditLog log_;
  fakes::FakeClock clock_;
  std::atomic<float> cpu_usage_{0};
  std::atomic<bool> cpu_fails_{false};
  std::atomic<bool> stage_fails_{false};
  IntakeCounters counters_;
  fakes::Mailbox<std::string> ended_;
  int resumed_ = 0;
  std::atomic<int> measured_{0};
  std::set<int> pause_at_;  // measurements that find a high load, counted from 1
  int probes_ = 0;
  fakes::RecordingRuleEngine engine_;
  fakes::ScriptedEventFactory factory_;
  HandChannel channel_;
  std::shared_ptr<internal::DiskLooks> looks_ = std::make_shared<internal::DiskLooks>();
  // No allowed memory at all gives the smallest queue: 100 MiB, 50 MiB to resume.
  std::unique_ptr<ParserThread> parser_;
};

TEST_F(ParserThreadTest, WhatTheDiskSaidIsForgottenBeforeEachPieceAndEachFlush) {
  std::vector<bool> known;
  factory_.interfere = [&](int) {
    known.push_back(looks_->folders.Find("/w") != nullptr);
    looks_->folders.Keep("/w", std::nullopt);
  };
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir) + Unfinished(AuditLog::kRenameOver));
  AwaitFlushWait();
  clock_.Advance(kFlushDelay);
  Processed(3);
  parser_->Stop();
  EXPECT_THAT(known, ElementsAre(false, true, false)) << "of the last event at the flush";
}

TEST_F(ParserThreadTest, QueueSizeFollowsTheAllowedMemory) {
  using Limits = ParserThread::QueueLimits;
  EXPECT_EQ(ParserThread::QueueLimitsFor(0), (Limits{100 * kMiB, 50 * kMiB}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(20'479'999), (Limits{100 * kMiB, 50 * kMiB}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(20'480'000), (Limits{102'400 * 1024, 51'200 * 1024}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(100'000'000), (Limits{512'000'000, 256'000'000}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(209'715'399), (Limits{1'048'576ULL * 1024, 524'288ULL * 1024}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(209'715'400), (Limits{1024 * kMiB, 512 * kMiB}));
  EXPECT_EQ(ParserThread::QueueLimitsFor(100ULL * 1024 * 1024 * 1024), (Limits{1024 * kMiB, 512 * kMiB}));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Setting parser queue size to 102400 KB")) << lines_.All();
}

TEST_F(ParserThreadTest, FlushesThePendingEventAfter100MillisecondsAndThenSleepsWithoutALimit) {
  parser_->Start();
  channel_.Deliver(Unfinished(AuditLog::kMkdir));
  AwaitFlushWait();
  EXPECT_TRUE(engine_.processed.IsEmpty()) << "more of it may come";
  clock_.Advance(kFlushDelay);
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
  // Only the second stage waits for the clock from here on.
  clock_.AwaitWaiters(1);
  EXPECT_GT(clock_.EarliestDeadline() - clock_.Now(), kFlushDelay);
}

TEST_F(ParserThreadTest, JoinsARecordThatWasSplitOverTwoReads) {
  parser_->Start();
  const std::string event = log_.Event(AuditLog::kMkdir);
  channel_.Deliver(event.substr(0, 100));
  AwaitFlushWait();
  channel_.Deliver(event.substr(100));
  while (measured_ < 4) std::this_thread::yield();
  AwaitFlushWait();
  clock_.Advance(kFlushDelay);
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
  EXPECT_THAT(factory_.syscalls, ElementsAre(83));
}

TEST_F(ParserThreadTest, PassesEventsOnWithoutAFlushWhenMoreFollow) {
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir));
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));  // the clock stands still
}

TEST_F(ParserThreadTest, ReadsTheLogOfARealKernelThroughTheKernelChannel) {
  fakes::ScriptedAuditSource kernel;
  KernelIOChannel channel(kernel);
  fakes::RecordingRuleEngine engine;
  fakes::ScriptedEventFactory factory;
  ParserThread parser(channel, engine, kCpuLimit, 0, Reports(), clock_, ParserThread::Seams{factory.Get(), IdleProbe});
  parser.Start();
  channel.Start();
  for (const unsigned serial : {AuditLog::kMkdir, AuditLog::kRmdir, AuditLog::kRenameOver}) {
    for (const std::string& record : log_.Records(serial)) {
      const std::string type = record.substr(5, record.find(' ') - 5);
      const std::string text = record.substr(record.find("audit("));
      kernel.Push(audit_name_to_msg_type(type.c_str()), text.substr(0, text.size() - 1));
    }
  }
  EXPECT_EQ(engine.processed.Take(), AuditLog::kMkdir);
  EXPECT_EQ(engine.processed.Take(), AuditLog::kRmdir);
  channel.Stop();
  parser.Stop();
}

TEST_F(ParserThreadTest, FeedsInStepsOfOneMiBAndMeasuresTheLoadAfterEach) {
  channel_.Deliver(Filler(5 * kMiB + 1));
  parser_->Start();
  AwaitFlushWait();
  EXPECT_EQ(measured_, 6 + 1) << "six steps and once more at the end";
}

TEST_F(ParserThreadTest, PassesEventsOnFourTimesAStep) {
  constexpr std::size_t kQuarter = 262'144;
  const std::string events = ManyEvents(2'300);
  ASSERT_GT(events.size(), 3 * kQuarter);
  ASSERT_LT(events.size(), kMiB);
  channel_.Deliver(events);
  parser_->Start();
  AwaitFlushWait();
  EXPECT_EQ(lines_.Count("Audit event processing buffer queue size: "), 3 + 1) << "and once more at the end";
  EXPECT_EQ(measured_, 1 + 1) << "one step";
}

TEST_F(ParserThreadTest, FeedsManyPiecesInTheSameSteps) {
  for (int i = 0; i < 300; ++i) channel_.Deliver(Filler(65'536));
  parser_->Start();
  AwaitFlushWait();
  EXPECT_EQ(measured_, 19 + 1) << "300 pieces of 64 KiB are not quite 19 MiB";
}

TEST_F(ParserThreadTest, JoinsWhatArrivesByteByByte) {
  for (const char byte : log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir)) {
    channel_.Deliver(std::string(1, byte));
  }
  parser_->Start();
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
  AwaitFlushWait();
  EXPECT_EQ(measured_, 1 + 1) << "one step";
}

TEST_F(ParserThreadTest, JoinsFullBurstsAndWhatComesBetweenThem) {
  const std::string events = ManyEvents(1'000);
  ASSERT_GT(events.size(), 5 * kBurst);
  std::size_t at = 0;
  for (const std::size_t size : {std::size_t{1'000}, kBurst, kBurst, std::size_t{1}, kBurst, events.size()}) {
    const std::string read = events.substr(at, size);
    channel_.Deliver(read);
    at += read.size();
  }
  parser_->Start();
  const std::vector<std::uint32_t> ids = Processed(999);
  for (std::uint32_t id = 1; id < 1'000; ++id) ASSERT_EQ(ids[id - 1], id);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(ParserThreadTest, WhatIsQueuedTakesNoMoreMemoryThanItCountsFor) {
  constexpr std::size_t kSlack = 6 * kMiB;  // this test's log lines among it
  const IOChannel::Bytes record = Filler(3'000);
  const std::size_t before = fakes::HeapInUse();
  while (parser_->GetQueuedBytes() < 40 * kMiB) channel_.Deliver(record);
  EXPECT_LT(fakes::HeapInUse() - before, 40 * kMiB + kSlack);

  pause_at_ = {30};
  parser_->Start();
  AwaitCpuPauses(1);
  EXPECT_LT(parser_->GetQueuedBytes(), 11 * kMiB) << "30 MiB are fed";
  EXPECT_LT(fakes::HeapInUse() - before, 11 * kMiB + kSlack);
}

TEST_F(ParserThreadTest, FullBurstsBetweenRecordsTakeNoMoreMemoryThanTheyCountFor) {
  constexpr std::size_t kSlack = 6 * kMiB;
  const IOChannel::Bytes record = Filler(3'000);
  const std::size_t before = fakes::HeapInUse();
  while (parser_->GetQueuedBytes() < 40 * kMiB) {
    channel_.Deliver(record);
    channel_.Deliver(Filler(kBurst));
  }
  EXPECT_LT(fakes::HeapInUse() - before, 40 * kMiB + kSlack);
}
#endif

TEST_F(ParserThreadTest, GoingIdleBehindATrimOfTheHeapFreesWhatIsKeptForTheThread) {
  const common::LoadProbe leaving{[]() -> float {
                                    fakes::LeaveKeptBlocks();
                                    return 0;
                                  },
                                  [] { return 0.0F; }, 4'000'000};
  ParserThread parser(channel_, engine_, kCpuLimit, 0, Reports(), clock_,
                      ParserThread::Seams{factory_.Get(), [&] { return probes_++ == 2 ? leaving : StageProbe(); }});
  parser.Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir));
  AwaitFlushWait();
  common::util::TrimHeap();
  const std::size_t before = fakes::HeapInUse();
  clock_.Advance(kFlushDelay);
  if (fakes::kKnowsItsHeap) {
    EXPECT_TRUE(fakes::HeapShrinksTo(before - fakes::kKeptBytes));
  }
  parser.Stop();
}

TEST_F(ParserThreadTest, TakesAlongWhatFollowsTheDataThatItWaitedFor) {
  std::atomic<bool> follows{false};
  ParserThread::Seams seams{factory_.Get(), [this] { return probes_++ == 2 ? ParserProbe() : StageProbe(); }};
  seams.let_gather = [&] {
    if (follows.exchange(false)) channel_.Deliver(log_.Event(AuditLog::kRenameOver));
  };
  ParserThread parser(channel_, engine_, kCpuLimit, 0, Reports(), clock_, std::move(seams));
  parser.Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir));
  AwaitFlushWait();
  measured_ = 0;
  follows = true;
  channel_.Deliver(log_.Event(AuditLog::kRmdir));
  EXPECT_THAT(Processed(2), ElementsAre(AuditLog::kMkdir, AuditLog::kRmdir));
  AwaitFlushWait();
  EXPECT_EQ(measured_, 1 + 1) << "one step";
  parser.Stop();
}

TEST_F(ParserThreadTest, AWallClockThatIsSetBackHoldsNeitherTheFlushNorTheCpuPause) {
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir));
  AwaitFlushWait();
  clock_.SetWall(-std::chrono::hours(1));
  clock_.Advance(kFlushDelay);
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));

  cpu_usage_ = 100;
  channel_.Deliver(log_.Event(AuditLog::kRmdir));
  AwaitCpuPauses(1);
  clock_.SetWall(-std::chrono::hours(1));
  cpu_usage_ = 0;
  clock_.Advance(std::chrono::seconds(1));
  AwaitFlushWait();
}

TEST_F(ParserThreadTest, PausesASecondAtATimeWhileTheLoadIsHigh) {
  cpu_usage_ = 31.5;
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir));
  AwaitCpuPauses(1);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG,
                         "Audit parser thread: Pausing thread as cpu usage (31.5) is higher than configured threshold "
                         "(30)"))
      << lines_.All();
  clock_.Advance(std::chrono::seconds(1));
  AwaitCpuPauses(2);
  cpu_usage_ = 30;
  clock_.Advance(std::chrono::seconds(1));
  AwaitFlushWait();
  clock_.Advance(kFlushDelay);
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
  EXPECT_EQ(lines_.Count("Audit parser thread: Pausing thread"), 2);
}

TEST_F(ParserThreadTest, AtItsLimitItDropsBytesUntilHalfIsFreeAgain) {
  const std::string warning = "Audit parser queue threshold hit. Disabling queueing of events.";
  for (int i = 0; i < 99; ++i) channel_.Deliver(Filler(kMiB));
  channel_.Deliver(Filler(kMiB + 5));
  EXPECT_FALSE(lines_.Has(warning)) << "the bytes that reach the limit still get in";
  channel_.Deliver("x");
  channel_.Deliver("x");
  EXPECT_EQ(lines_.Count(warning), 1);
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_WARNING, warning));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_DEBUG, "Audit parser queue size: 102400 KB"));
  EXPECT_EQ(parser_->GetQueuedBytes(), 100 * kMiB + 5);

  // The load lets the parser feed one step at a time.
  cpu_usage_ = 100;
  parser_->Start();
  AwaitCpuPauses(1);
  channel_.Deliver("x");
  EXPECT_FALSE(lines_.Has("Enabling the audit parser queue")) << "below the limit, but above the mark";
  EXPECT_EQ(resumed_, 0);
  EXPECT_EQ(counters_.Get(Reason::BytesAtBound), 3U);

  cpu_usage_ = 0;
  clock_.Advance(std::chrono::seconds(1));
  AwaitFlushWait();
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir));
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_INFORMATION, "Enabling the audit parser queue"));
  EXPECT_EQ(resumed_, 1);
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
}

TEST_F(ParserThreadTest, TakesBytesAgainExactlyAtTheMark) {
  channel_.Deliver(Filler(100 * kMiB));
  channel_.Deliver("dropped");
  // One measurement follows each step, another one each pause.
  pause_at_ = {49, 51};
  parser_->Start();
  AwaitCpuPauses(1);
  channel_.Deliver("dropped");
  EXPECT_FALSE(lines_.Has("Enabling the audit parser queue")) << "51 MiB are left";
  clock_.Advance(std::chrono::seconds(1));
  AwaitCpuPauses(2);
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir));
  EXPECT_TRUE(lines_.Has("Enabling the audit parser queue")) << "50 MiB are left";
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
}

TEST_F(ParserThreadTest, StopEndsTheSecondStageFirst) {
  parser_->Start();
  parser_->Stop();
  const auto lines = lines_.Lines();
  const auto position = [&](const std::string& text) {
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].getText().find(text) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
  };
  EXPECT_GE(position("Stopping parsed events processing thread"), 0);
  EXPECT_GT(position("Stopping Audit Parser Thread"), position("Stopping parsed events processing thread"));
  parser_->Stop();
  EXPECT_EQ(lines_.Count("Stopping Audit Parser Thread"), 1) << "harmless when stopped";
}

TEST_F(ParserThreadTest, StopWakesTheParserFromEveryWait) {
  parser_->Start();
  parser_->Stop();  // idle, without a time limit

  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir));
  AwaitFlushWait();
  parser_->Stop();  // before the flush; the clock stands still

  cpu_usage_ = 100;
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kRmdir));
  AwaitCpuPauses(1);
  parser_->Stop();  // in the CPU pause; the clock stands still
}

TEST_F(ParserThreadTest, StopReleasesAParserThatWaitsForSpaceInTheSecondStage) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  const std::string events = ManyEvents(10'100);
  parser_->Start();
  channel_.Deliver(events.substr(0, events.size() / 2));
  while (!lines_.Has("Audit active event processing queue size: ")) std::this_thread::yield();
  channel_.Deliver(events);
  channel_.Deliver(events);
  channel_.Deliver(events);
  while (!lines_.Has("Processing queue threshold hit.")) std::this_thread::yield();
  auto stopping = std::async(std::launch::async, [this] { parser_->Stop(); });
  while (!lines_.Has("Enabling the processing queue")) std::this_thread::yield();
  open.set_value();
  stopping.get();
}

TEST_F(ParserThreadTest, StartsAgainAfterAStop) {
  parser_->Start();
  parser_->Stop();
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir));
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
}

TEST_F(ParserThreadTest, RunsOnceAtATime) {
  parser_->Start();
  try {
    parser_->Start();
    FAIL() << "started twice";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Audit Parser thread already running");
  }
}

TEST_F(ParserThreadTest, TellsWhatItDiedOfAndDropsWhatTheChannelStillReads) {
  cpu_fails_ = true;
  parser_->Start();
  channel_.Deliver("type=EOE msg=audit(1.000:1): \n");
  EXPECT_EQ(ended_.Take(), "Audit Parser Thread: no /proc");
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_INFORMATION, "Started Audit Parser Thread"));
  const std::uint64_t before = counters_.Get(Reason::BytesAtStop);
  for (int i = 0; i < 300; ++i) channel_.Deliver(Filler(kMiB));
  EXPECT_EQ(counters_.Get(Reason::BytesAtStop) - before, 300 * kMiB);
  EXPECT_FALSE(lines_.Has("Audit parser queue threshold hit.")) << "it was queued";
  EXPECT_THROW(parser_->Stop(), std::runtime_error);
}

TEST_F(ParserThreadTest, StartsAgainAfterItsDeath) {
  cpu_fails_ = true;
  parser_->Start();
  channel_.Deliver("type=EOE msg=audit(1.000:1): \n");
  ASSERT_TRUE(ended_.Take().has_value());
  EXPECT_THROW(parser_->Stop(), std::runtime_error);
  cpu_fails_ = false;
  parser_->Start();
  channel_.Deliver(log_.Event(AuditLog::kMkdir) + log_.Event(AuditLog::kRmdir));
  EXPECT_THAT(Processed(1), ElementsAre(AuditLog::kMkdir));
  parser_->Stop();
  EXPECT_TRUE(ended_.IsEmpty());
}

TEST_F(ParserThreadTest, ASecondStageThatDiesReleasesTheParserThatWaitsForSpace) {
  std::promise<void> open;
  engine_.on_process = [gate = open.get_future().share()](const edr::Event&) { gate.wait(); };
  const std::string events = ManyEvents(10'100);
  parser_->Start();
  channel_.Deliver(events.substr(0, events.size() / 2));
  while (!lines_.Has("Audit active event processing queue size: ")) std::this_thread::yield();
  for (int i = 0; i < 3; ++i) channel_.Deliver(events);
  while (!lines_.Has("Processing queue threshold hit.")) std::this_thread::yield();
  stage_fails_ = true;
  open.set_value();
  EXPECT_EQ(ended_.Take(), "Parsed events processing thread: no /proc");
  // All is parsed, in vain.
  while (counters_.Get(Reason::LeftAtStop) < 30'000U) std::this_thread::yield();
  EXPECT_THROW(parser_->Stop(), std::runtime_error);
}

TEST_F(ParserThreadTest, CountsTheBytesThatAStopLeaves) {
  channel_.Deliver(Filler(10 * kMiB));
  cpu_usage_ = 100;
  parser_->Start();
  AwaitCpuPauses(1);
  channel_.Deliver(Filler(kMiB));
  parser_->Stop();
  EXPECT_EQ(counters_.Get(Reason::BytesAtStop), 10 * kMiB) << "one step of eleven was fed";
}

TEST_F(ParserThreadTest, CountsTheEventThatAStopFindsIncomplete) {
  cpu_usage_ = 100;
  parser_->Start();
  channel_.Deliver(Unfinished(AuditLog::kMkdir));
  AwaitCpuPauses(1);
  parser_->Stop();
  EXPECT_EQ(counters_.Get(Reason::LeftAtStop), 1U);
  EXPECT_TRUE(engine_.processed.IsEmpty());
}

}  // namespace
}  // namespace zagent::audit
