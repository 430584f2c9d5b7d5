#include "src/ioc/EventProcessor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "src/ioc/process/ProcessInfo.h"
#include "src/ioc/protobuf/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::ioc::internal {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t kPid = 100;
constexpr std::int64_t kThreshold = 10;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kStart = 1'700'000'000 * kSecond;

// An engine that answers what a test says, and keeps whom it was asked about.
class FakeEngine final : public Engine {
 public:
  explicit FakeEngine(std::function<Verdict(const edr::Event&)> answer) : answer_(std::move(answer)) {}
  Verdict Process(const edr::Event& event) override { return answer_(event); }

 private:
  const std::function<Verdict(const edr::Event&)> answer_;
};

class FakeGenerator final : public EventGenerator {
 public:
  void Process(const edr::Event& event, bool send_metadata) override {
    if (event.GetId() == failing_id) throw std::runtime_error("no room");
    if (event.GetId() == pointless_id) throw protobuf::Exception("nobody knows of it");
    lines.push_back(event.GetAction() + " " + std::to_string(event.GetActorProcessId()) + "/" +
                    std::to_string(event.GetId()) + (send_metadata ? " with metadata" : ""));
  }

  void KeepHouse() override { ++house_kept; }

  std::vector<std::string> lines;
  int house_kept = 0;
  std::uint32_t failing_id = 0;
  std::uint32_t pointless_id = 0;
};

class EventProcessorTest : public testing::Test {
 protected:
  EventProcessorTest() {
    EventProcessor::Engines engines;
    engines.filtering = Answering(filtering_, asked_filtering_);
    engines.heuristics = Answering(heuristics_, asked_heuristics_);
    engines.hash_matching = Answering(hash_, asked_hash_);
    engines.tagging = Answering(tagging_, asked_tagging_);
    engines.threshold_score = [this] { return threshold_; };
    processor_ = std::make_unique<EventProcessor>(
        std::move(engines), tree_, generator_, [this] { return send_metadata_; }, health_, clock_);
  }

  std::unique_ptr<FakeEngine> Answering(const std::function<Verdict(const edr::Event&)>& answer,
                                        std::vector<std::uint32_t>& asked) {
    return std::make_unique<FakeEngine>([&](const edr::Event& event) {
      asked.push_back(event.GetId());
      return answer(event);
    });
  }
  static std::function<Verdict(const edr::Event&)> Always(Verdict verdict) {
    return [verdict](const edr::Event&) { return verdict; };
  }
  // The engine's verdict stays with the process, as that of the real ones does.
  std::function<Verdict(const edr::Event&)> AlwaysTelling(const std::string& tag, Verdict verdict) {
    return [=, this](const edr::Event& event) {
      const std::int32_t pid = event.GetActorProcessId();
      if (tree_.Has(pid)) tree_.Get(pid)->AddTag(tag, VerdictWord(verdict));
      return verdict;
    };
  }
  // Nothing is reported before its time is over, unless a test says otherwise.
  void LetAllWait() { hash_ = AlwaysTelling("HashMatchingVerdict", Verdict::Clean); }

  static std::unique_ptr<fakes::FakeEvent> Event(edr::EventType type, const std::string& action, edr::ObjectType object,
                                                 std::uint32_t id, std::int32_t pid = kPid) {
    auto event = std::make_unique<fakes::FakeEvent>(type, action, "/etc/passwd");
    event->object_type = object;
    event->id = id;
    event->pid = pid;
    event->timestamp = kStart + id * kSecond;
    return event;
  }
  static std::unique_ptr<fakes::FakeEvent> Start(std::uint32_t id, std::int32_t pid = kPid, std::int32_t ppid = 1) {
    auto event = Event(edr::EventType::ProcessStart, "Execve", edr::ObjectType::Process, id, pid);
    event->ppid = ppid;
    return event;
  }
  static std::unique_ptr<fakes::FakeEvent> Exit(std::uint32_t id, std::int32_t pid = kPid) {
    auto event = Event(edr::EventType::ProcessExit, "Exit", edr::ObjectType::Process, id, pid);
    event->image = std::nullopt;
    return event;
  }
  static std::unique_ptr<fakes::FakeEvent> Write(std::uint32_t id, std::int32_t pid = kPid, std::int32_t ppid = 1) {
    auto event = Event(edr::EventType::Write, "Write", edr::ObjectType::File, id, pid);
    event->ppid = ppid;
    return event;
  }
  static std::unique_ptr<fakes::FakeEvent> Delete(std::uint32_t id) {
    return Event(edr::EventType::Delete, "Delete", edr::ObjectType::File, id);
  }
  static std::unique_ptr<fakes::FakeEvent> Connect(std::uint32_t id) {
    return Event(edr::EventType::Connect, "Connect", edr::ObjectType::Network, id);
  }

  // The process is known and nothing of it waits.
  void Know(std::int32_t pid, std::int32_t ppid = 1) {
    tree_.AddEvent(Start(1, pid, ppid));
    EXPECT_EQ(WaitingEvents(pid), 1U);
  }
  void Process(std::unique_ptr<edr::Event> event) { processor_->Process(std::move(event)); }
  std::vector<std::string> Reported() { return std::exchange(generator_.lines, {}); }
  // Nothing comes until the time of every process is over.
  std::vector<std::string> ReportedAtExpiry() {
    clock_.Advance(seconds(121));
    Process(nullptr);
    return Reported();
  }
  // Takes them.
  std::size_t WaitingEvents(std::int32_t pid = kPid) { return tree_.Get(pid)->TakeEvents().size(); }

  fakes::LogCapture log_;
  fakes::FakeClock clock_{fakes::FakeClock::SystemTime(seconds(kStart / kSecond))};
  fakes::FakeProcFs proc_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Ioc};
  const bool has_init_ = (proc_.Start(1, {.ppid = 0, .start = 1}), true);
  TtlProcessTree tree_{nullptr, seconds(120), clock_, proc_.Root()};
  FakeGenerator generator_;
  bool send_metadata_ = false;
  std::int64_t threshold_ = kThreshold;
  std::function<Verdict(const edr::Event&)> filtering_ = Always(Verdict::Unknown);
  std::function<Verdict(const edr::Event&)> heuristics_ = Always(Verdict::Unknown);
  std::function<Verdict(const edr::Event&)> hash_ = Always(Verdict::Unknown);
  std::function<Verdict(const edr::Event&)> tagging_ = Always(Verdict::Clean);
  std::vector<std::uint32_t> asked_filtering_, asked_heuristics_, asked_hash_, asked_tagging_;
  std::unique_ptr<EventProcessor> processor_;
};

// What becomes of one event, and of one that waits when the time of its process is over.
enum class Fate { Reported, Dropped, WaitsAndIsReported, WaitsAndIsIgnored };

struct Row {
  const char* object;
  bool clean_by_heuristics;
  int hash;
  Fate below;         // a score below the threshold
  Fate at_threshold;  // and one that has reached it
};

constexpr Fate kReported = Fate::Reported;
constexpr Fate kDropped = Fate::Dropped;
constexpr Fate kLater = Fate::WaitsAndIsReported;
constexpr Fate kNever = Fate::WaitsAndIsIgnored;

constexpr Row kRows[] = {
    {"process", true, 1, kNever, kLater},        {"process", true, 2, kNever, kLater},
    {"process", true, 3, kNever, kLater},        {"process", true, 4, kNever, kLater},
    {"process", false, 1, kNever, kReported},    {"process", false, 2, kReported, kReported},
    {"process", false, 3, kReported, kReported}, {"process", false, 4, kReported, kReported},
    {"file", true, 1, kDropped, kDropped},       {"file", true, 2, kDropped, kDropped},
    {"file", true, 3, kDropped, kDropped},       {"file", true, 4, kDropped, kDropped},
    {"file", false, 1, kNever, kReported},       {"file", false, 2, kLater, kReported},
    {"file", false, 3, kReported, kReported},    {"file", false, 4, kReported, kReported},
    {"network", true, 1, kDropped, kDropped},    {"network", true, 2, kDropped, kDropped},
    {"network", true, 3, kDropped, kDropped},    {"network", true, 4, kDropped, kDropped},
    {"network", false, 1, kNever, kReported},    {"network", false, 2, kLater, kReported},
    {"network", false, 3, kReported, kReported}, {"network", false, 4, kReported, kReported},
};

class VerdictChainTest : public EventProcessorTest, public testing::WithParamInterface<std::tuple<Row, bool>> {
 public:
  static std::string NameOf(const testing::TestParamInfo<std::tuple<Row, bool>>& tested) {
    const auto& [row, at_threshold] = tested.param;
    return std::string(row.object) + (row.clean_by_heuristics ? "_damped" : "") + "_hash" + std::to_string(row.hash) +
           (at_threshold ? "_at_threshold" : "_below");
  }
};

TEST_P(VerdictChainTest, DecidesWhatBecomesOfAnEvent) {
  const auto& [row, at_threshold] = GetParam();
  heuristics_ = row.clean_by_heuristics ? AlwaysTelling("HeuristicsVerdict", Verdict::Clean) : Always(Verdict::Unknown);
  hash_ = AlwaysTelling("HashMatchingVerdict", static_cast<Verdict>(row.hash));
  tagging_ = Always(at_threshold ? Verdict::Suspicious : Verdict::Clean);
  const std::string object = row.object;
  if (object == "process") {
    Process(Start(5));
  } else {
    Know(kPid);
    Process(object == "file" ? Write(5) : Connect(5));
  }
  tree_.Get(kPid)->AddScore(at_threshold ? kThreshold : kThreshold - 1);
  const bool now = !Reported().empty();
  const bool waits = tree_.Get(kPid)->HasEvents();
  const bool at_expiry = !ReportedAtExpiry().empty();
  const Fate fate = now         ? Fate::Reported
                    : !waits    ? Fate::Dropped
                    : at_expiry ? Fate::WaitsAndIsReported
                                : Fate::WaitsAndIsIgnored;
  EXPECT_EQ(fate, at_threshold ? row.at_threshold : row.below);
  EXPECT_FALSE(now && (waits || at_expiry)) << "once is enough";
}

INSTANTIATE_TEST_SUITE_P(AllVerdicts, VerdictChainTest, testing::Combine(testing::ValuesIn(kRows), testing::Bool()),
                         VerdictChainTest::NameOf);

TEST_F(EventProcessorTest, OfAnUnknownProgramEveryEventIsReportedUnlessTheFilterSaysNo) {
  Process(Start(1));
  Process(Write(2));
  Process(Connect(3));
  Process(Exit(4));
  EXPECT_THAT(Reported(), ElementsAre("Execve 100/1", "Write 100/2", "Connect 100/3", "Exit 100/4"));
  filtering_ = Always(Verdict::Clean);
  Process(Write(5));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_THAT(ReportedAtExpiry(), IsEmpty());
}

TEST_F(EventProcessorTest, ACallWithoutAnEventSeesToWhatIsDueAlone) {
  Process(nullptr);
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_TRUE(log_.Lines().empty()) << log_.All();
}

TEST_F(EventProcessorTest, AnUnsuccessfulCallIsDroppedAtOnce) {
  Know(kPid);
  auto event = Write(7);
  event->successful = false;
  Process(std::move(event));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_FALSE(tree_.Get(kPid)->HasEvents());
  EXPECT_THAT(asked_heuristics_, IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Dropping unsuccessful Write event with ID 7"));
}

TEST_F(EventProcessorTest, AFileEventThatTheHeuristicsKnowNeverReachesTheCache) {
  Know(kPid);
  heuristics_ = Always(Verdict::Clean);
  Process(Write(7));
  EXPECT_FALSE(tree_.Get(kPid)->HasEvents());
  EXPECT_THAT(asked_hash_, IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG,
                       "[IOC]: Dropping Write event for process /bin/actor with ID 7 based on heuristics"))
      << log_.All();
}

TEST_F(EventProcessorTest, AHitReportsAllThatWaitsWithItsProcessAndTheChildrenOldestFirst) {
  LetAllWait();
  Process(Start(2));
  Process(Start(3, 101, kPid));
  Process(Write(6, 101, kPid));
  Process(Write(5));
  EXPECT_THAT(Reported(), IsEmpty());
  hash_ = Always(Verdict::Suspicious);
  send_metadata_ = true;
  Process(Connect(4));
  EXPECT_THAT(Reported(),
              ElementsAre("Execve 100/2 with metadata", "Execve 101/3 with metadata", "Connect 100/4 with metadata",
                          "Write 100/5 with metadata", "Write 101/6 with metadata"));
  EXPECT_FALSE(tree_.Get(kPid)->HasEvents());
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Reporting Connect event for process with pid 100 (/bin/actor)"));
}

TEST_F(EventProcessorTest, WhatTheFilterFindsCleanIsNotReported) {
  Know(kPid);
  filtering_ = Always(Verdict::Clean);
  Process(Write(2));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Filtering out Write event for process with pid 100 (/bin/actor)"));
}

TEST_F(EventProcessorTest, TheTaggingIsAskedOnlyWhereTheHashLeavesItOpen) {
  Know(kPid);
  hash_ = Always(Verdict::Suspicious);
  Process(Write(2));
  EXPECT_THAT(asked_tagging_, IsEmpty());
  hash_ = Always(Verdict::Clean);
  Process(Write(3));
  EXPECT_THAT(asked_tagging_, ElementsAre(3));
  tagging_ = Always(static_cast<Verdict>(0));
  Process(Write(4));
  EXPECT_EQ(Reported().size(), 1U) << "no verdict is nothing to report";
}

TEST_F(EventProcessorTest, OfACleanProcessOnlyItsEndAndItsDeletionsAreReportedWhenItsTimeIsOver) {
  LetAllWait();
  Process(Start(2));
  Process(Write(3));
  Process(Delete(4));
  Process(Connect(5));
  Process(Exit(6));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_THAT(ReportedAtExpiry(), ElementsAre("Delete 100/4", "Exit 100/6"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Processing pending Event: Write. Event ID: 3. PID: 100"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Ignoring Write event for clean process with pid 100 (/bin/actor)"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Reporting Exit event for 'Clean' process with pid 100 (/bin/actor)"));
}

TEST_F(EventProcessorTest, WhatIsDueIsJudgedBehindAnEventTooButNotBehindAFailedCall) {
  LetAllWait();
  Process(Start(2));
  Process(Delete(3));
  clock_.Advance(seconds(121));
  auto failed = Write(4);
  failed->successful = false;
  Process(std::move(failed));
  EXPECT_THAT(Reported(), IsEmpty());
  Process(Write(5));
  EXPECT_THAT(Reported(), ElementsAre("Delete 100/3"));
}

TEST_F(EventProcessorTest, AnAbnormalEndIsAnEndToo) {
  LetAllWait();
  Process(Start(2));
  auto abend = Exit(3);
  abend->type = edr::EventType::AbnormalEnd;
  abend->action = "Abend";
  Process(std::move(abend));
  EXPECT_THAT(ReportedAtExpiry(), ElementsAre("Abend 100/3"));
}

TEST_F(EventProcessorTest, TheFilterHasTheLastWordOnPendingEventsToo) {
  LetAllWait();
  Process(Start(2));
  Process(Exit(3));
  filtering_ = Always(Verdict::Clean);
  EXPECT_THAT(ReportedAtExpiry(), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG,
                       "[IOC]: Filtering out Exit event for 'Clean' process with pid 100 (/bin/actor)"));
}

TEST_F(EventProcessorTest, AScoreAtTheThresholdMakesACleanProcessWorthReporting) {
  LetAllWait();
  Process(Start(2));
  tree_.Get(kPid)->AddScore(kThreshold);
  EXPECT_THAT(ReportedAtExpiry(), ElementsAre("Execve 100/2"));
}

TEST_F(EventProcessorTest, WithoutAThresholdTheScoreSaysNothing) {
  LetAllWait();
  threshold_ = 0;
  Process(Start(2));
  tree_.Get(kPid)->AddScore(kThreshold);
  EXPECT_THAT(ReportedAtExpiry(), IsEmpty());
}

TEST_F(EventProcessorTest, TheVerdictOfPendingEventsComesFromTheTagsOfTheProcess) {
  struct Case {
    std::optional<std::string> heuristics, hash, expected;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, "Malicious"}, {"Clean", std::nullopt, std::nullopt},
      {"Clean", "Malicious", std::nullopt},      {"Unknown", std::nullopt, "Unknown"},
      {"Unknown", "Clean", std::nullopt},        {"Unknown", "Suspicious", "Suspicious"},
      {std::nullopt, "Clean", std::nullopt},     {std::nullopt, "CleanWithoutHash", "CleanWithoutHash"},
  };
  std::int32_t pid = kPid;
  for (const Case& tested : cases) {
    ++pid;
    hash_ = Always(Verdict::Clean);
    Process(Start(2, pid));
    if (tested.heuristics) tree_.Get(pid)->AddTag("HeuristicsVerdict", *tested.heuristics);
    if (tested.hash) tree_.Get(pid)->AddTag("HashMatchingVerdict", *tested.hash);
    const auto reported = ReportedAtExpiry();
    EXPECT_EQ(!reported.empty(), tested.expected.has_value()) << pid;
    if (tested.expected) {
      EXPECT_TRUE(log_.Has("[IOC]: Reporting Execve event for '" + *tested.expected + "' process with pid " +
                           std::to_string(pid) + " (/bin/actor)"))
          << log_.All();
    }
  }
}

TEST_F(EventProcessorTest, AProcessIsJudgedOnceForAllOfItsPendingEvents) {
  LetAllWait();
  Process(Start(2));
  Process(Exit(3));
  // The first to be reported changes the tag: what is behind it stays with the verdict that there was.
  filtering_ = [&](const edr::Event&) {
    tree_.Get(kPid)->AddTag("HashMatchingVerdict", "Unknown");
    return Verdict::Unknown;
  };
  auto late = Delete(1);
  Process(std::move(late));
  EXPECT_THAT(ReportedAtExpiry(), ElementsAre("Delete 100/1", "Exit 100/3"));
}

TEST_F(EventProcessorTest, AnUnknownWordInATagLosesTheEventsOfThatProcessAlone) {
  hash_ = Always(Verdict::Clean);
  Process(Start(2));
  Process(Start(3, 101));
  tree_.Get(kPid)->AddTag("HashMatchingVerdict", "Nonsense");
  EXPECT_THAT(ReportedAtExpiry(), ElementsAre("Execve 101/3"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Unknown verdict string: Nonsense"));
  EXPECT_EQ(reporter_.Dropped(), 1U);
}

TEST_F(EventProcessorTest, APidThatComesAgainBehindItsEndClosesTheOldProcess) {
  LetAllWait();
  Process(Start(2));
  Process(Start(3, 101, kPid));
  Process(Write(4, 101, kPid));
  Process(Start(3, 102, 101));
  Process(Exit(5));
  Process(Start(6));
  EXPECT_THAT(Reported(), ElementsAre("Exit 100/5")) << "the end of the old one, judged before its time";
  EXPECT_FALSE(tree_.Get(kPid)->HasTag("Terminated"));
  EXPECT_TRUE(log_.Has("[IOC]: DeleteStaleProcesses: Deleting ProcessInfo for PID: 100"));
  EXPECT_FALSE(tree_.Get(101)->HasEvents()) << "what waited with the children was judged too";
  EXPECT_FALSE(tree_.Get(102)->HasEvents()) << "and with theirs";
  EXPECT_EQ(tree_.Get(101)->GetParent(), 1);
  EXPECT_EQ(WaitingEvents(), 1U);
}

TEST_F(EventProcessorTest, APidWhoseProcessHasNotEndedIsNotReused) {
  LetAllWait();
  Process(Start(2));
  Process(Write(3));
  Process(Start(4));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_EQ(WaitingEvents(), 3U) << "the same process runs another program";
}

TEST_F(EventProcessorTest, WhoHasEndedAndOutlivedItsTimeIsForgottenMoreThanASecondAfterTheLastLook) {
  LetAllWait();
  Process(Start(2));
  Process(Exit(3));
  clock_.Advance(seconds(120));
  Process(nullptr);
  EXPECT_FALSE(tree_.Has(kPid));
  Process(Start(4, 101));
  Process(Exit(5, 101));
  clock_.Advance(seconds(120));
  Process(nullptr);  // a look, which forgets it
  Process(Start(6, 102));
  Process(Exit(7, 102));
  tree_.ExpireProcess(102);
  EXPECT_EQ(WaitingEvents(102), 2U);
  clock_.Advance(seconds(1));
  Process(nullptr);
  EXPECT_TRUE(tree_.Has(102)) << "exactly a second is not more";
  clock_.Advance(milliseconds(1));
  Process(nullptr);
  EXPECT_FALSE(tree_.Has(102));
}

TEST_F(EventProcessorTest, AnEventOfAnUnknownProcessIsLostCountedAndToldOnceAMinute) {
  for (std::uint32_t id = 1; id <= 3; ++id) Process(Write(id, 555));
  EXPECT_THAT(Reported(), IsEmpty());
  EXPECT_EQ(reporter_.Dropped(), 3U);
  const auto errors = [&] { return log_.Count("EventProcessor: Failed "); };
  EXPECT_EQ(errors(), 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[IOC]: EventProcessor: Failed 1 times, at last: Event id: 1 cannot be added as actor process "
                       "information is not available"))
      << log_.All();
  clock_.Advance(seconds(60));
  Process(Write(4, 555));
  EXPECT_EQ(errors(), 2);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "EventProcessor: Failed 3 times, at last: Event id: 4 "));
}

TEST_F(EventProcessorTest, AFailingEngineLosesTheEventAtHandAlone) {
  Know(kPid);
  heuristics_ = [](const edr::Event& event) {
    if (event.GetId() == 2) throw std::out_of_range("gone");
    return Verdict::Unknown;
  };
  Process(Write(2));
  Process(Write(3));
  EXPECT_THAT(Reported(), ElementsAre("Write 100/3"));
  EXPECT_EQ(reporter_.Dropped(), 1U);
}

TEST_F(EventProcessorTest, AnEventThatCannotBeReportedDoesNotTakeThoseBehindItAlong) {
  LetAllWait();
  Process(Start(2));
  Process(Write(3));
  generator_.failing_id = 3;
  hash_ = Always(Verdict::Unknown);
  Process(Write(4));
  EXPECT_THAT(Reported(), ElementsAre("Execve 100/2", "Write 100/4"));
  EXPECT_EQ(reporter_.Dropped(), 1U);
  EXPECT_TRUE(log_.Has("no room"));
}

TEST_F(EventProcessorTest, AnEventThatTheGeneratorLeavesOutIsNoLoss) {
  Know(kPid);
  generator_.pointless_id = 2;
  Process(Delete(2));
  EXPECT_EQ(reporter_.Dropped(), 0U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: nobody knows of it"));
  EXPECT_FALSE(log_.Has("EventProcessor: Failed"));
}

TEST_F(EventProcessorTest, TheGeneratorKeepsHouseEachSecondWithoutAnyEvent) {
  Process(nullptr);
  EXPECT_EQ(generator_.house_kept, 0);
  for (int second = 0; second < 3; ++second) {
    clock_.Advance(milliseconds(1001));
    Process(nullptr);
    Process(nullptr);
  }
  EXPECT_EQ(generator_.house_kept, 3);
}

TEST_F(EventProcessorTest, ItsEndIsLogged) {
  processor_.reset();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Destroying EventProcessor"));
}

}  // namespace
}  // namespace zagent::ioc::internal
