#include "common/src/util/ProcessTimes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "tests/fakes/TempFolder.h"

namespace zagent::common::util {
namespace {

class ProcessTimesTest : public testing::Test {
 protected:
  void SetStat(const std::string& line) const {
    std::filesystem::create_directory(proc_ / "42");
    proc_.Write("42/stat", line);
  }

  fakes::TempFolder proc_;
};

TEST_F(ProcessTimesTest, FindsTheBootTimeAmongTheLinesOfStat) {
  proc_.Write("stat", "cpu  1 2 3\nintr 5 btime 6\nbtime 1700000000\nprocesses 99\n");
  EXPECT_EQ(ReadBootTime(proc_.Path()), 1'700'000'000);
}

TEST_F(ProcessTimesTest, RefusesAStatWithoutBootTime) {
  EXPECT_THROW((void)ReadBootTime(proc_.Path()), std::runtime_error);
  proc_.Write("stat", "cpu  1 2 3\nbtime soon\n");
  EXPECT_THROW((void)ReadBootTime(proc_.Path()), std::runtime_error);
}

TEST_F(ProcessTimesTest, ReadsTheStartBehindANameThatHoldsAnything) {
  SetStat("42 (a (b) 1 2) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 250 20 21\n");
  const std::int64_t ticks_per_second = sysconf(_SC_CLK_TCK);
  EXPECT_EQ(ReadStartSinceBoot(42, proc_.Path()), 250 * 1'000'000'000LL / ticks_per_second);
}

TEST_F(ProcessTimesTest, KnowsNothingOfAProcessThatIsNotThereOrALineThatIsCut) {
  EXPECT_FALSE(ReadStartSinceBoot(42, proc_.Path()));
  SetStat("42 (name) S 1 2 3");
  EXPECT_FALSE(ReadStartSinceBoot(42, proc_.Path()));
  SetStat("");
  EXPECT_FALSE(ReadStartSinceBoot(42, proc_.Path()));
  SetStat("42 (name) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 never 20\n");
  EXPECT_FALSE(ReadStartSinceBoot(42, proc_.Path()));
}

TEST_F(ProcessTimesTest, KnowsNothingOfAProcessThatEndsWhileItIsRead) {
  // A folder, too, can be opened and fails when it is read.
  std::filesystem::create_directories(proc_ / "42/stat");
  std::optional<std::int64_t> start = 1;
  EXPECT_NO_THROW(start = ReadStartSinceBoot(42, proc_.Path()));
  EXPECT_FALSE(start);
}

TEST_F(ProcessTimesTest, AgreesWithTheClockAboutThisProcess) {
  const auto start = ReadStartSinceBoot(getpid());
  ASSERT_TRUE(start);
  const std::chrono::nanoseconds started(StartSinceEpoch(*start));
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_LT(started, now);
  EXPECT_GT(started, now - std::chrono::hours(1));
}

}  // namespace
}  // namespace zagent::common::util
