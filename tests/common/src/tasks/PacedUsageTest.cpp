#include "common/src/tasks/PacedUsage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using namespace std::chrono_literals;

class PacedUsageTest : public testing::Test {
 protected:
  static constexpr std::uint64_t kLimit = 5;

  PacedUsageTest() {
    proc_.Write("meminfo", "MemTotal: 1000000 kB\n");
    std::filesystem::create_directory(proc_ / std::to_string(getpid()));
    Use(0, 0s);
    monitor_.emplace(kLimit, 5, clock_, proc_.Path());
    paced_.emplace(*monitor_, clock_);
  }

  // The process uses so much of all processors for so long.
  void Use(double percent, std::chrono::milliseconds time) {
    ticks_ += percent / 100 * std::chrono::duration<double>(time).count() *
              static_cast<double>(sysconf(_SC_CLK_TCK) * sysconf(_SC_NPROCESSORS_CONF));
    const std::string pid = std::to_string(getpid());
    proc_.Write(pid + "/stat", pid + " (a) S 1 2 3 4 5 6 7 8 9 10 " +
                                   std::to_string(static_cast<std::uint64_t>(ticks_)) + " 0 0 0 20 0 1 0 100\n");
    clock_.Advance(time);
  }
  // Pauses as a stage does, a second at a time, and says for how many.
  int PauseWhileHigh() {
    int seconds = 0;
    while (paced_->GetPercent() > static_cast<float>(kLimit) && seconds < 1000) {
      Use(0, 1001ms);
      ++seconds;
    }
    return seconds;
  }

  double ticks_ = 0;
  fakes::TempFolder proc_;
  fakes::FakeClock clock_;
  std::optional<ResourceMonitor> monitor_;
  std::optional<PacedUsage> paced_;
};

TEST_F(PacedUsageTest, BelowTheLimitItIsTheUse) {
  EXPECT_EQ(paced_->GetPercent(), 0);
  Use(4, 10s);
  EXPECT_NEAR(paced_->GetPercent(), 4, 0.1);
  Use(0, 2s);
  EXPECT_EQ(paced_->GetPercent(), 0);
  EXPECT_EQ(PauseWhileHigh(), 0);
}

TEST_F(PacedUsageTest, ASecondOfFullUseIsPaidBackUntilTheMeanIsTheLimit) {
  Use(100, 2s);
  const int pause = PauseWhileHigh();
  EXPECT_GE(pause, 37) << "two seconds are a twentieth of forty";
  EXPECT_LE(pause, 39);
}

TEST_F(PacedUsageTest, HoweverLongAStageWorksTheMeanComesToTheLimit) {
  const auto begin = clock_.SteadyNow();
  for (int second = 0; second < 50; ++second) {
    Use(60, 1001ms);
    PauseWhileHigh();
  }
  const double passed = std::chrono::duration<double>(clock_.SteadyNow() - begin).count();
  EXPECT_NEAR(50 * 60 / passed, kLimit, 0.5);
}

TEST_F(PacedUsageTest, WhatIsOwedIsAMinuteOfRestAtMost) {
  Use(100, 1h);
  const int pause = PauseWhileHigh();
  EXPECT_GE(pause, 59);
  EXPECT_LE(pause, 61);
}

TEST_F(PacedUsageTest, WhileSomethingIsOwedItIsTheMeanSinceThenOrTheUseIfThatIsMore) {
  Use(0, 1h);
  EXPECT_EQ(paced_->GetPercent(), 0);
  Use(30, 2s);
  EXPECT_NEAR(paced_->GetPercent(), 30, 1);
  Use(80, 2s);
  EXPECT_NEAR(paced_->GetPercent(), 80, 1);
  Use(0, 2s);
  EXPECT_NEAR(paced_->GetPercent(), (30 + 80) / 3.0, 1) << "the hour before counts";
}

TEST_F(PacedUsageTest, IdleTimeBeforehandIsNoCredit) {
  Use(0, 1h);
  EXPECT_EQ(paced_->GetPercent(), 0);
  Use(100, 2s);
  EXPECT_GE(PauseWhileHigh(), 37);
}

}  // namespace
}  // namespace zagent::common
