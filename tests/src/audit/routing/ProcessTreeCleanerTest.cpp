#include "src/audit/routing/ProcessTreeCleaner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;
using fakes::FakeProcFs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::int64_t kSecond = 1'000'000'000;

class ProcessTreeCleanerTest : public testing::Test {
 protected:
  // In the tree; `start` is in nanoseconds since the boot.
  void Add(std::int32_t pid, std::optional<std::int64_t> start = 100 * kSecond, std::int64_t creation_time = 0) {
    auto process = std::make_unique<fakes::FakeProcessInfo>(pid, 1);
    process->creation_time = creation_time;
    process->SetStartSinceBoot(start);
    tree_.Add(std::move(process));
  }
  std::vector<std::int32_t> CleanAfter(std::chrono::seconds time) {
    clock_.Advance(time);
    return cleaner_.Clean();
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  FakeProcFs proc_;
  common::ProcessTree tree_;
  ProcessTreeCleaner cleaner_{tree_, clock_, proc_.Root()};
};

TEST_F(ProcessTreeCleanerTest, FindsWhoHasGoneEveryThirtyMinutes) {
  Add(10);
  Add(20);
  proc_.Start(20);
  EXPECT_THAT(CleanAfter(1799s), IsEmpty());
  EXPECT_FALSE(log_.Has("Cleaning process tree"));
  EXPECT_THAT(CleanAfter(1s), ElementsAre(10));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Cleaning process tree for terminated processes: size 2"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "ProcessID: 10 exited. "));

  proc_.End(20);
  EXPECT_THAT(CleanAfter(1799s), IsEmpty());
  EXPECT_THAT(CleanAfter(1s), UnorderedElementsAre(10, 20));
}

TEST_F(ProcessTreeCleanerTest, KnowsAPidThatCameAgainByItsStart) {
  Add(10, 100 * kSecond);
  Add(20, 100 * kSecond);
  Add(30, 100 * kSecond);
  proc_.Start(10, {.start = 101.9});
  proc_.Start(20, {.start = 102});
  proc_.Start(30, {.start = 98});
  EXPECT_THAT(CleanAfter(1800s), UnorderedElementsAre(20, 30));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG,
                       "ProcessID: 20 creation time from processInfo differs with Proc creation time"));
  EXPECT_FALSE(log_.Has("ProcessID: 10"));
}

TEST_F(ProcessTreeCleanerTest, AWallClockThatWasSetMakesNoProcessAnother) {
  Add(10);
  proc_.Start(10);
  proc_.SetBootTime(FakeProcFs::kBootTime + 3600);
  EXPECT_THAT(CleanAfter(1800s), IsEmpty());
}

TEST_F(ProcessTreeCleanerTest, JudgesAProcessThatNobodySawByTheTimeOfItsEvent) {
  const std::int64_t boot = FakeProcFs::kBootTime * kSecond;
  Add(10, std::nullopt, boot + 100 * kSecond);
  Add(20, std::nullopt, boot + 100 * kSecond);
  Add(30, std::nullopt, boot + 100 * kSecond);
  proc_.Start(10, {.start = 50});  // an event may come long after the start
  proc_.Start(20, {.start = 101.9});
  proc_.Start(30, {.start = 102});
  EXPECT_THAT(CleanAfter(1800s), ElementsAre(30));
}

TEST_F(ProcessTreeCleanerTest, AnswersOnceARoundAndAgainOnlyWhoStayed) {
  Add(10);
  Add(20);
  EXPECT_THAT(CleanAfter(1800s), UnorderedElementsAre(10, 20));
  EXPECT_THAT(cleaner_.Clean(), IsEmpty());
  tree_.Delete(10);
  EXPECT_THAT(CleanAfter(1800s), ElementsAre(20));
}

TEST_F(ProcessTreeCleanerTest, LooksAtAFewProcessesACall) {
  for (std::int32_t pid = 1; pid <= 600; ++pid) Add(pid);
  EXPECT_EQ(CleanAfter(1800s).size(), 256U);
  EXPECT_EQ(cleaner_.Clean().size(), 256U);
  tree_.Delete(tree_.GetPids().front());  // whoever ends meanwhile is no trouble
  EXPECT_LE(cleaner_.Clean().size(), 88U);
  EXPECT_THAT(CleanAfter(1799s), IsEmpty());
  EXPECT_EQ(CleanAfter(1s).size(), 599U) << "those of the last round, at once";
}

TEST_F(ProcessTreeCleanerTest, CountsTheThirtyMinutesFromTheBeginningOfARound) {
  for (std::int32_t pid = 1; pid <= 300; ++pid) Add(pid);
  EXPECT_EQ(CleanAfter(1800s).size(), 256U);
  EXPECT_EQ(CleanAfter(600s).size(), 44U);
  EXPECT_THAT(CleanAfter(1199s), IsEmpty());
  EXPECT_EQ(CleanAfter(1s).size(), 300U);
}

TEST_F(ProcessTreeCleanerTest, AFullTreeIsCleanedAtOnceButNotAllTheTime) {
  Poco::Logger::get("edr").setLevel(Poco::Message::PRIO_INFORMATION);
  const auto round = [this] {
    std::size_t gone = 0;
    for (int call = 0; call < 100'000 / 256 + 1; ++call) gone += cleaner_.Clean().size();
    return gone;
  };
  for (std::int32_t pid = 1; pid < 100'000; ++pid) Add(pid);
  EXPECT_EQ(CleanAfter(10s).size(), 0U);
  Add(100'000);
  EXPECT_EQ(round(), 100'000U);
  clock_.Advance(9s);
  EXPECT_EQ(round(), 0U);
  clock_.Advance(1s);
  EXPECT_EQ(round(), 100'000U);
}

TEST_F(ProcessTreeCleanerTest, CanBeAskedToRunSoon) {
  cleaner_.RunSoon();
  Add(10);
  EXPECT_THAT(cleaner_.Clean(), IsEmpty()) << "there was nobody to look at";
  cleaner_.RunSoon();
  EXPECT_THAT(cleaner_.Clean(), ElementsAre(10));
  EXPECT_THAT(cleaner_.Clean(), IsEmpty());
}

}  // namespace
}  // namespace zagent::audit::internal
