#include "src/ioc/engines/HeuristicsEngine.h"

#include <atomic>
#include <thread>

#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using std::chrono::hours;
using std::chrono::nanoseconds;

constexpr std::uint64_t kMaxCount = 10;

class HeuristicsEngineTest : public RulesFixture {
 protected:
  Verdict Judge(const edr::Event& event) { return engine_.Process(event); }
  // Of the shell, to the address that stands for a kind.
  Verdict JudgeKind(std::uint32_t kind) { return Judge(NetworkEvent("10.0.0.1", kind)); }
  // So many of one kind pass; the next one does not.
  void UseUp(std::uint32_t kind, std::uint64_t count = kMaxCount) {
    for (std::uint64_t at = 0; at < count; ++at) ASSERT_EQ(JudgeKind(kind), Verdict::Unknown) << at;
    ASSERT_EQ(JudgeKind(kind), Verdict::Clean);
  }
  [[nodiscard]] std::string TagOf(std::int32_t pid) const {
    return tree_->Get(pid)->FindTag(process_tag::kHeuristicsVerdict).value_or("(none)");
  }

  HeuristicsEngine engine_{*tree_, kMaxCount, true, clock_};
};

TEST_F(HeuristicsEngineTest, TenOfAKindPassAndTheEleventhIsDropped) {
  UseUp(1);
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  EXPECT_EQ(JudgeKind(2), Verdict::Unknown) << "another kind has its own count";
}

TEST_F(HeuristicsEngineTest, ADayAfterTheFirstOneItPassesAgainAndCountsAnew) {
  EXPECT_EQ(JudgeKind(1), Verdict::Unknown);
  clock_.Advance(hours(23));
  for (int at = 1; at < 10; ++at) EXPECT_EQ(JudgeKind(1), Verdict::Unknown) << at;
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  clock_.Advance(hours(1));
  EXPECT_EQ(JudgeKind(1), Verdict::Clean) << "24 hours after the first one it is not older than that";
  clock_.Advance(nanoseconds(1));
  UseUp(1);
}

TEST_F(HeuristicsEngineTest, TwentyFiveHoursLaterItPassesAgain) {
  UseUp(1);
  clock_.Advance(hours(25));
  UseUp(1);
}

TEST_F(HeuristicsEngineTest, AWallClockThatIsSetMakesNobodyOlder) {
  UseUp(1);
  clock_.SetWall(hours(48));
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
}

TEST_F(HeuristicsEngineTest, OneKindMoreThanItCountsTakesThePlaceOfTheOneSeenLongestAgo) {
  constexpr std::uint32_t kKinds = HeuristicsEngine::kMaxKinds;
  UseUp(1);
  UseUp(2);
  for (std::uint32_t kind = 3; kind <= kKinds; ++kind) ASSERT_EQ(JudgeKind(kind), Verdict::Unknown);
  EXPECT_EQ(JudgeKind(1), Verdict::Clean) << "it is full, and nothing is forgotten";
  EXPECT_EQ(JudgeKind(kKinds + 1), Verdict::Unknown);  // takes the place of 2
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  UseUp(2);
}

TEST_F(HeuristicsEngineTest, FilesOfOneFolderAreOneKind) {
  for (std::uint64_t at = 0; at < kMaxCount; ++at) {
    ASSERT_EQ(Judge(FileEvent("/etc/file" + std::to_string(at))), Verdict::Unknown);
  }
  EXPECT_EQ(Judge(FileEvent("/etc/another")), Verdict::Clean);
  EXPECT_EQ(Judge(FileEvent("/etc/ssh/another")), Verdict::Unknown);
}

TEST_F(HeuristicsEngineTest, TheSameFileFromAnotherParentIsAnotherKind) {
  Exec(71, kShell, "/bin/cat");
  Exec(72, kCron, "/bin/cat");
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.pid = 71;
  for (std::uint64_t at = 0; at < kMaxCount; ++at) ASSERT_EQ(Judge(event), Verdict::Unknown);
  EXPECT_EQ(Judge(event), Verdict::Clean);
  event.pid = 72;
  EXPECT_EQ(Judge(event), Verdict::Unknown);
}

TEST_F(HeuristicsEngineTest, TheFirstEventThatPassesTagsItsProcess) {
  const fakes::LogCapture log;
  EXPECT_EQ(TagOf(kShell), "(none)");
  UseUp(1, kMaxCount);
  EXPECT_EQ(TagOf(kShell), "Clean") << "the last one was dropped";
  EXPECT_EQ(log.Count("[IOC]: Adding heuristics verdict 'Unknown' to process 60 (/bin/dash)"), 1);
  EXPECT_EQ(log.Count("[IOC]: Adding heuristics verdict 'Clean' to process 60 (/bin/dash)"), 1);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "Adding heuristics verdict 'Unknown'"));
  EXPECT_EQ(JudgeKind(2), Verdict::Unknown);
  EXPECT_EQ(TagOf(kShell), "Unknown");
}

TEST_F(HeuristicsEngineTest, AProcessThatHasOnlyRepeatedWhatOthersDidHasNoTag) {
  const fakes::LogCapture log;
  Exec(61, kCron, "/bin/cat");
  Exec(62, kCron, "/bin/cat");
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.pid = 61;
  for (std::uint64_t at = 0; at < kMaxCount; ++at) ASSERT_EQ(Judge(event), Verdict::Unknown);
  event.pid = 62;
  EXPECT_EQ(Judge(event), Verdict::Clean);
  EXPECT_EQ(TagOf(62), "(none)");
  EXPECT_FALSE(log.Has("to process 62"));
}

TEST_F(HeuristicsEngineTest, DisabledItLetsEverythingPassAndTagsNobody) {
  engine_.Configure(kMaxCount, false);
  const fakes::LogCapture log;
  for (std::uint64_t at = 0; at < 2 * kMaxCount; ++at) EXPECT_EQ(JudgeKind(1), Verdict::Unknown);
  EXPECT_EQ(TagOf(kShell), "(none)");
  EXPECT_TRUE(log.Lines().empty());
  fakes::FakeEvent unknown = FileEvent("/etc/passwd");
  unknown.pid = 4711;
  EXPECT_EQ(Judge(unknown), Verdict::Unknown) << "nobody asks the tree";
}

TEST_F(HeuristicsEngineTest, MadeDisabledItLetsEverythingPass) {
  HeuristicsEngine engine(*tree_, 1, false, clock_);
  for (int at = 0; at < 3; ++at) EXPECT_EQ(engine.Process(FileEvent("/etc/passwd")), Verdict::Unknown);
}

TEST_F(HeuristicsEngineTest, EnabledAgainItKeepsItsCountsAndAfterItWasDisabledItHasNone) {
  UseUp(1);
  engine_.Configure(kMaxCount, true);
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  engine_.Configure(kMaxCount, false);
  engine_.Configure(kMaxCount, true);
  UseUp(1);
}

TEST_F(HeuristicsEngineTest, AnotherMaximumHoldsFromTheNextEventOn) {
  UseUp(1);
  engine_.Configure(kMaxCount + 1, true);
  EXPECT_EQ(JudgeKind(1), Verdict::Unknown);
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  engine_.Configure(1, true);
  UseUp(2, 1);
}

TEST_F(HeuristicsEngineTest, AMaximumOfZeroIsRefusedAndChangesNothing) {
  constexpr const char* kText = "maxCount cannot be set to 0 on the heuristics engine";
  UseUp(1);
  for (const bool enabled : {true, false}) {
    EXPECT_EQ(fakes::WhatOf<std::invalid_argument>([&] { engine_.Configure(0, enabled); }), kText);
    EXPECT_EQ(fakes::WhatOf<std::invalid_argument>([&] { HeuristicsEngine(*tree_, 0, enabled, clock_); }), kText);
  }
  EXPECT_EQ(JudgeKind(1), Verdict::Clean);
  UseUp(2);
}

TEST_F(HeuristicsEngineTest, AProcessThatIsNotKnownIsTheTreesFailureAndCountsNothing) {
  fakes::FakeEvent event = NetworkEvent("10.0.0.1", 1);
  event.pid = 4711;
  EXPECT_THROW((void)Judge(event), common::GenericProcessTreeException);
  UseUp(1);
}

// For ThreadSanitizer most of all.
TEST_F(HeuristicsEngineTest, ItMayBeConfiguredWhileEventsCome) {
  std::atomic<bool> is_over{false};
  std::thread control([&] {
    for (bool enabled = false; !is_over; enabled = !enabled) engine_.Configure(enabled ? 1 : 2, enabled);
  });
  int passed = 0;
  for (int at = 0; at < 2'000; ++at) passed += JudgeKind(1) == Verdict::Unknown ? 1 : 0;
  is_over = true;
  control.join();
  EXPECT_GE(passed, 1);
}

}  // namespace
}  // namespace zagent::ioc::internal
