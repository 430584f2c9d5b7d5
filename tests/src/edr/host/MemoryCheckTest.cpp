#include "src/edr/host/MemoryCheck.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using Limits = MemoryCheck::Limits;

TEST(MemoryLimitsTest, ASmallShareGetsTheLeastLimits) {
  EXPECT_EQ(MemoryCheck::LimitsFor(0, 8'000'000), (Limits{409'600, 614'400}));
  EXPECT_EQ(MemoryCheck::LimitsFor(1, 40'959'999), (Limits{409'600, 614'400}));
  EXPECT_EQ(MemoryCheck::LimitsFor(1, 40'960'000), (Limits{409'600, 614'400}));
}

TEST(MemoryLimitsTest, ALargerShareIsTheSoftLimitAndHalfAsMuchAgainTheHardOne) {
  EXPECT_EQ(MemoryCheck::LimitsFor(1, 40'960'100), (Limits{409'601, 614'401})) << "a fraction of a KB is cut off";
  EXPECT_EQ(MemoryCheck::LimitsFor(10, 8'000'000), (Limits{800'000, 1'200'000}));
}

TEST(MemoryLimitsTest, AHugeMachineStopsAtTwoAndThreeGiB) {
  EXPECT_EQ(MemoryCheck::LimitsFor(100, 2'097'153), (Limits{2'097'152, 3'145'728}));
  EXPECT_EQ(MemoryCheck::LimitsFor(50, 1'000'000'000), (Limits{2'097'152, 3'145'728}));
}

// A machine of 4,000,000 KB, of which half may be used: soft limit 2,000,000 KB, hard limit 3,000,000 KB. Both are
// percentages that a float holds exactly.
class MemoryCheckTest : public testing::Test {
 protected:
  static constexpr std::uint64_t kSoft = 2'000'000;
  static constexpr std::uint64_t kHard = 3'000'000;

  MemoryCheckTest() { std::filesystem::create_directory(Own()); }

  [[nodiscard]] std::string Own() const { return proc_ / std::to_string(getpid()); }
  void Use(std::uint64_t kb) const {
    proc_.Write(std::to_string(getpid()) + "/smaps", "5555-6666 r--p 00000000 08:01 1 /usr/sbin/ostrel-edr\nRss:   " +
                                                         std::to_string(kb - 1000) + " kB\nPss:  7 kB\nRss: 1000 kB\n");
  }
  // The next look of the check, at a process that uses `kb`.
  bool Look(std::uint64_t kb) {
    Use(kb);
    clock_.Advance(181s);
    return check_.Run();
  }

  fakes::TempFolder proc_;
  fakes::FakeClock clock_;
  fakes::LogCapture log_;
  int trims_ = 0;
  int trim_result_ = 0;
  MemoryCheck check_ = [this] {
    proc_.Write("meminfo", "MemTotal:        4000000 kB\nMemFree:  1 kB\n");
    return MemoryCheck(common::ResourceMonitor(100, 50, clock_, proc_.Path()), clock_, [this] {
      ++trims_;
      return trim_result_;
    });
  }();
};

TEST_F(MemoryCheckTest, TellsItsLimitsOnce) {
  EXPECT_EQ(check_.GetLimits(), (Limits{kSoft, kHard}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Memory threshold: softLimit: 2000000 KB  HardLimit: 3000000 KB."));
}

TEST_F(MemoryCheckTest, LooksOnceInThreeMinutes) {
  Use(kHard + 1000);
  clock_.Advance(180s);
  EXPECT_FALSE(check_.Run());
  EXPECT_EQ(trims_, 0);
  EXPECT_EQ(log_.Count("MEMCHECK"), 0);
  clock_.Advance(1ns);
  EXPECT_FALSE(check_.Run());
  EXPECT_EQ(trims_, 1);
  EXPECT_EQ(log_.Count("MEMCHECK: Strike : "), 1);
  clock_.Advance(180s);
  EXPECT_FALSE(check_.Run());
  EXPECT_EQ(trims_, 1);
}

TEST_F(MemoryCheckTest, TellsWhatItSees) {
  EXPECT_FALSE(Look(1'000'000));
  trim_result_ = 1;
  EXPECT_FALSE(Look(kHard + 40'000));
  using Poco::Message;
  EXPECT_EQ(log_.Count("MEMCHECK: Memory threshold: softLimit: 2000000 KB  HardLimit: 3000000 KB."), 2);
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "MEMCHECK: No memory was released back to OS after trim."));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "MEMCHECK: Memory released back to OS after trim"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "MEMCHECK: Current memory consumption of edr process 1000000 KB"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "MEMCHECK: Current memory consumption of edr process 3040000 KB"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "MEMCHECK: Strike : 1 as memory went over hard limit:  3000000 KB."));
}

TEST_F(MemoryCheckTest, TheThirdStrikeIsOneTooManyAndStaysIt) {
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_TRUE(Look(kHard + 40'000));
  EXPECT_TRUE(check_.Run()) << "also before the next look";
  EXPECT_EQ(log_.Count("MEMCHECK: Strike : 3 as memory went over hard limit:  3000000 KB."), 1);
}

TEST_F(MemoryCheckTest, OverBetweenOverOverAsksTheHostToEnd) {
  ExitFlag exit_flag{false};
  for (const std::uint64_t kb : {kHard + 40'000, kSoft + 40'000, kHard + 40'000}) {
    Use(kb);
    clock_.Advance(181s);
    check_.RunFor(exit_flag);
    EXPECT_FALSE(exit_flag);
  }
  clock_.Advance(181s);
  check_.RunFor(exit_flag);
  EXPECT_TRUE(exit_flag);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "MEMCHECK: Shutting down as memory usage is beyond set hard limit."));
}

TEST_F(MemoryCheckTest, BetweenTheLimitsTheStrikesStay) {
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kSoft + 40'000));
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_TRUE(Look(kHard + 40'000));
}

TEST_F(MemoryCheckTest, BelowTheSoftLimitTheyAreForgotten) {
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kSoft - 40'000));
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_TRUE(Look(kHard + 40'000));
}

TEST_F(MemoryCheckTest, ExactlyAtALimitIsBetweenThem) {
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_FALSE(Look(kHard)) << "no strike";
  EXPECT_FALSE(Look(kSoft)) << "and none is forgotten";
  EXPECT_FALSE(Look(kHard + 40'000));
  EXPECT_TRUE(Look(kHard + 40'000));
}

TEST_F(MemoryCheckTest, WithoutAReadingTheLastOneCounts) {
  EXPECT_FALSE(Look(kHard + 40'000));
  std::filesystem::remove(Own() + "/smaps");
  clock_.Advance(181s);
  EXPECT_FALSE(check_.Run());
  clock_.Advance(181s);
  EXPECT_TRUE(check_.Run());
}

TEST_F(MemoryCheckTest, AWallClockThatIsSetMovesNoLook) {
  Use(kHard + 40'000);
  clock_.SetWall(1h);
  EXPECT_FALSE(check_.Run());
  EXPECT_EQ(trims_, 0);
}

TEST(ThisMachineTest, TheMemoryOfThisProcessIsBelowItsLimit) {
  fakes::FakeClock clock;
  const fakes::LogCapture log;
  MemoryCheck check(common::ResourceMonitor(100, 100, clock), clock);
  clock.Advance(181s);
  EXPECT_FALSE(check.Run());
  EXPECT_EQ(log.Count("MEMCHECK: Current memory consumption of edr process "), 1);
  EXPECT_EQ(log.Count("MEMCHECK: Current memory consumption of edr process 0 KB"), 0) << "the real smaps is read";
  EXPECT_EQ(log.Count(" after trim"), 1);
}

}  // namespace
}  // namespace zagent::edr::host
