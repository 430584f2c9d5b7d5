#include "src/audit/events/FolderScan.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;

class FolderScanTest : public ::testing::Test {
 protected:
  void Start() {
    scan_.Start();
    clock_.AwaitWaiters(1);  // it has nothing to do
  }
  bool Knows(const std::string& path) { return identities_.FolderAt(path).has_value(); }
  void Make(const std::string& name) { std::filesystem::create_directories(root_ / name); }
  // 0 while nobody waits.
  [[nodiscard]] std::chrono::nanoseconds TimeToDeadline() const {
    const auto deadline = clock_.EarliestDeadline();
    return deadline == std::chrono::system_clock::time_point::max() ? 0ns : deadline - clock_.Now();
  }

  fakes::LogCapture log_;
  fakes::TempFolder root_;
  fakes::FakeClock clock_;
  std::atomic<std::int64_t> cpu_ms_a_look_{0}, cpu_ms_{0};
  FolderIdentities identities_;
  MountTable mounts_;
  FolderScan scan_{identities_, mounts_, clock_,
                   [this] { return std::chrono::milliseconds(cpu_ms_.fetch_add(cpu_ms_a_look_)); }};
};

TEST_F(FolderScanTest, RestsNineteenTimesAsLongAsItWorks) {
  Make("a");
  cpu_ms_a_look_ = 5;
  scan_.Watch({{root_.Path()}});
  scan_.Start();
  clock_.AwaitWaiters(1);
  EXPECT_EQ(TimeToDeadline(), 100ms);  // 5 ms of processor time in 100 ms
  EXPECT_TRUE(Knows(root_.Path()));
  EXPECT_FALSE(Knows(root_ / "a"));
  while (!Knows(root_ / "a")) {
    clock_.Advance(100ms);
    while (TimeToDeadline() <= 0ns) std::this_thread::yield();  // it has not noticed yet
    EXPECT_TRUE(TimeToDeadline() == 100ms || TimeToDeadline() > 1h) << "a rest, or nothing more to do";
  }
}

TEST_F(FolderScanTest, EndsAtOnceWhileItRests) {
  Make("a");
  cpu_ms_a_look_ = 60'000;
  scan_.Watch({{root_.Path()}});
  scan_.Start();
  clock_.AwaitWaiters(1);
  scan_.Stop();
  EXPECT_FALSE(Knows(root_ / "a"));
}

TEST_F(FolderScanTest, EndsAtOnceWithNothingToDo) {
  Start();
  scan_.Stop();
  scan_.Stop();
}

TEST_F(FolderScanTest, TakesUpOtherRulesInTheMiddleOfAFill) {
  Make("a/sub");
  Make("b/sub");
  cpu_ms_a_look_ = 5;
  scan_.Watch({{root_ / "a"}});
  scan_.Start();
  clock_.AwaitWaiters(1);
  scan_.Watch({{root_ / "b"}});
  cpu_ms_a_look_ = 0;
  clock_.Advance(1h);
  while (!Knows(root_ / "b/sub")) std::this_thread::yield();
  EXPECT_FALSE(Knows(root_ / "a"));
  EXPECT_FALSE(Knows(root_ / "a/sub"));
}

TEST_F(FolderScanTest, GoesOnAfterAFailure) {
  int calls = 0;
  FolderScan scan(identities_, mounts_, clock_, [&]() -> std::chrono::nanoseconds {
    if (++calls == 2) throw std::runtime_error("no processor time");
    return 0ns;
  });
  scan.Watch({{root_.Path()}});
  scan.Start();
  clock_.AwaitWaiters(1);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "Failed to look for the folders below the watched paths: no processor time"));
  Make("later");
  scan.Watch({{root_ / "later"}});
  while (!Knows(root_ / "later")) std::this_thread::yield();
  scan.Stop();
}

TEST_F(FolderScanTest, LooksAgainWhenRecordsWereLost) {
  Start();
  scan_.Watch({{root_.Path()}});
  while (!Knows(root_.Path()) || TimeToDeadline() == 0ns) std::this_thread::yield();
  Make("missed");
  scan_.StartAgain();
  while (!Knows(root_ / "missed")) std::this_thread::yield();
}

TEST_F(FolderScanTest, CountsTheTimeOfItsOwnThread) {
  const auto before = FolderScan::OfThisThread();
  while (FolderScan::OfThisThread() - before < 2ms) {
  }
  EXPECT_GE(FolderScan::OfThisThread() - before, 2ms);
}

}  // namespace
}  // namespace zagent::audit::internal
