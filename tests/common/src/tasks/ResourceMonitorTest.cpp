#include "common/src/tasks/ResourceMonitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "common/src/tasks/CircularBuffer.h"
#include "common/src/tasks/LoadProbe.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeProcess.h"
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
    // A command name may hold blanks, parentheses and line ends.
    proc_.Write(pid_ + "/stat", pid_ + " (a (b)\n1 2) S 1 2 3 4 5 6 7 8 9 10 " + times + " 0 0 20 0 1 0 100\n");
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

TEST_F(ResourceMonitorTest, WhatWasUsedBeforeItWasMadeDoesNotCount) {
  SetTicks(40'000, 2'000);
  ResourceMonitor monitor(5, 5, clock_, proc_.Path());
  SetTicks(40'030, 2'020);
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(50, 2000));
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

TEST_F(ResourceMonitorTest, ACountThatGoesBackIsNoUse) {
  ResourceMonitor monitor(5, 5, clock_, proc_.Path());
  SetTicks(50, 0);
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_FLOAT_EQ(monitor.GetCpuUsagePercent(), Percent(50, 2000));
  SetTicks(49, 0);
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_EQ(monitor.GetCpuUsagePercent(), 0);
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
  std::filesystem::create_directory(proc_ / (pid_ + "/stat"));  // opens, and cannot be read
  EXPECT_EQ(error(), "Failed to read CPU usage info from /proc/stat");
}

// Memory is looked at seldom, for the walk is dear.
class MemoryUsageTest : public ::testing::Test {
 protected:
  fakes::FakeProcess process_;
  fakes::FakeClock clock_;
  ResourceMonitor monitor_{100, 100, clock_, process_.ProcRoot()};
};

TEST_F(MemoryUsageTest, IsZeroWithinTheFirstMinute) {
  process_.SetResidentKb({250'000});
  clock_.Advance(std::chrono::seconds(60));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 0);
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 25);
}

TEST_F(MemoryUsageTest, SumsTheMappingsOnceAMinute) {
  process_.SetResidentKb({100'000, 0, 25'000});
  clock_.Advance(std::chrono::seconds(61));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 12.5F);
  process_.SetResidentKb({500'000});
  clock_.Advance(std::chrono::seconds(60));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 12.5F) << "it was looked at too early";
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 50);
}

TEST_F(MemoryUsageTest, AWalkThatFindsNothingLeavesTheLastResultAndManyOfThemAreFine) {
  process_.SetResidentKb({100'000});
  clock_.Advance(std::chrono::seconds(61));
  EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 10);
  process_.SetResidentKb({});
  for (int i = 0; i < 25; ++i) {
    clock_.Advance(std::chrono::seconds(61));
    EXPECT_EQ(monitor_.GetMemoryUsagePercent(), 10);
  }
}

TEST_F(MemoryUsageTest, AProbeOfThisProcessTellsBoth) {
  const LoadProbe probe = MakeLoadProbe(100, 100, clock_);
  EXPECT_EQ(probe.total_memory_kb, ReadTotalMemoryKb());
  EXPECT_EQ(probe.cpu_usage_percent(), 0);
  EXPECT_EQ(probe.memory_usage_percent(), 0);
  // Use of the processor is told from the first second on, that of memory from the first minute on.
  const std::clock_t start = std::clock();
  while (std::clock() < start + CLOCKS_PER_SEC / 10) {
  }
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_GT(probe.cpu_usage_percent(), 0);
  EXPECT_EQ(probe.memory_usage_percent(), 0);
  clock_.Advance(std::chrono::seconds(61));
  EXPECT_GT(probe.memory_usage_percent(), 0);
  EXPECT_LT(probe.memory_usage_percent(), 100);
}

TEST(CircularBufferTest, GivesTheOldestFirstAndKnowsItsBounds) {
  CircularBuffer<int, 3> buffer;
  const auto error_of = [](const auto& call) {
    try {
      call();
    } catch (const CircularBufferException& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(error_of([&] { buffer.Pop(); }), "Cannot pop from an empty Circular buffer");
  for (int i = 1; i <= 3; ++i) buffer.Insert(i);
  EXPECT_TRUE(buffer.IsFull());
  EXPECT_EQ(error_of([&] { buffer.Insert(4); }), "Cannot insert into a full Circular buffer");
  EXPECT_EQ(buffer.Pop(), 1);
  buffer.Insert(4);
  EXPECT_EQ(buffer.Pop(), 2);
  EXPECT_EQ(buffer.Pop(), 3);
  EXPECT_EQ(buffer.Pop(), 4);
  EXPECT_EQ(buffer.Size(), 0U);
}

}  // namespace
}  // namespace zagent::common
