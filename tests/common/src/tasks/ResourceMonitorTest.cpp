#include "common/src/tasks/ResourceMonitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

class ResourceMonitorTest : public ::testing::Test {
 protected:
  ResourceMonitorTest() : pid_(std::to_string(getpid())) {
    std::filesystem::create_directory(proc_ / pid_);
    proc_.Write("meminfo", "MemTotal:       16315884 kB\nMemFree:         1234567 kB\n");
    SetTicks(0, 0);
  }

  void SetTicks(std::uint64_t utime, std::uint64_t stime) {
    SetStat(std::to_string(utime) + " " + std::to_string(stime));
  }
  void SetStat(const std::string& times) {
    // A command name may hold blanks and parentheses.
    proc_.Write(pid_ + "/stat", pid_ + " (a (b) 1 2) S 1 2 3 4 5 6 7 8 9 10 " + times + " 0 0 20 0 1 0 100\n");
  }

  // The percentage of one second's `ticks` within `milliseconds`.
  static float Percent(float ticks, float milliseconds) {
    return ticks * 1000 / static_cast<float>(sysconf(_SC_CLK_TCK)) * 100 / milliseconds /
           static_cast<float>(sysconf(_SC_NPROCESSORS_CONF));
  }

  static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const ResourceMonitorException& error) {
      return error.what();
    }
    return "";
  }

  fakes::TempFolder proc_;
  fakes::FakeClock clock_;
  std::string pid_;
};

TEST_F(ResourceMonitorTest, ReadsTheTotalMemory) {
  const ResourceMonitor monitor(5, 10, clock_, proc_.Path());
  EXPECT_EQ(monitor.GetTotalMemoryKb(), 16315884U);
  EXPECT_EQ(monitor.GetCpuLimit(), 5U);
  EXPECT_EQ(monitor.GetMemoryLimit(), 10U);
}

TEST_F(ResourceMonitorTest, ReadsTheMachine) {
  EXPECT_GT(ReadTotalMemoryKb(), 0U);
  ResourceMonitor monitor(100, 100);
  EXPECT_EQ(monitor.GetCpuUsagePercent(), 0);
}

TEST_F(ResourceMonitorTest, SaysWhyTheTotalMemoryCannotBeHad) {
  EXPECT_EQ(ErrorOf([] { ReadTotalMemoryKb("/nonexistent"); }), "Failed to read total system memory from proc fs");
  proc_.Write("meminfo", "MemFree: 1 kB\n");
  EXPECT_EQ(ErrorOf([&] { ReadTotalMemoryKb(proc_.Path()); }), "Failed to read total system memory from proc fs");
  proc_.Write("meminfo", "MemTotal:  lots kB\n");
  EXPECT_EQ(ErrorOf([&] { ReadTotalMemoryKb(proc_.Path()); }).find("Failed to parse system memory: 'lots' ("), 0U);
  proc_.Write("meminfo", "MemTotal: 99999999999999999999999 kB\n");
  EXPECT_EQ(ErrorOf([&] { ReadTotalMemoryKb(proc_.Path()); }).find("Failed to parse system memory: '9999"), 0U);
}

TEST_F(ResourceMonitorTest, RefusesLimitsAboveAHundredPercent) {
  const auto make = [&](std::uint64_t cpu, std::uint64_t memory) -> std::string {
    try {
      const ResourceMonitor monitor(cpu, memory, clock_, proc_.Path());
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(make(101, 0), "CPU usage threshold percentage cannot be greater than 100%");
  EXPECT_EQ(make(0, 101), "Memory usage threshold percentage cannot be greater than 100%");
  EXPECT_EQ(make(100, 100), "");
}

TEST_F(ResourceMonitorTest, MeasuresTheShareOfAllProcessorsSinceTheLastSample) {
  ResourceMonitor monitor(5, 5, clock_, proc_.Path());
  SetTicks(30, 20);
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(50, 2000));
  SetTicks(100, 50);
  clock_.Advance(std::chrono::seconds(4));
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(100, 4000));
}

TEST_F(ResourceMonitorTest, ReadsAtMostOnceInAboutASecond) {
  ResourceMonitor monitor(5, 5, clock_, proc_.Path());
  SetTicks(50, 0);
  clock_.Advance(std::chrono::nanoseconds(1'000'999'999));
  EXPECT_EQ(monitor.GetCpuUsagePercent(), 0);
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(50, 1001));
  SetTicks(500, 0);
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(50, 1001));
}

TEST_F(ResourceMonitorTest, SaysWhyTheCpuUseCannotBeHad) {
  ResourceMonitor monitor(5, 5, clock_, proc_.Path());
  clock_.Advance(std::chrono::seconds(2));
  const auto error = [&] { return ErrorOf([&] { monitor.GetCpuUsagePercent(); }); };
  SetStat("none 1");
  EXPECT_EQ(error(), "Failed to parse /proc/stat for CPU usage");
  proc_.Write(pid_ + "/stat", "1 (short) S 1 2\n");
  EXPECT_EQ(error(), "Failed to parse /proc/stat for CPU usage");
  proc_.Write(pid_ + "/stat", "no parenthesis at all");
  EXPECT_EQ(error(), "Failed to parse /proc/stat for CPU usage");
  std::filesystem::remove(proc_ / (pid_ + "/stat"));
  EXPECT_EQ(error(), "Failed to read CPU usage info from /proc/stat");
}

}  // namespace
}  // namespace zagent::common
