#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "common/src/tasks/CircularBuffer.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

class ResourceMonitorException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Total memory of the machine in KB: the MemTotal line of <proc_root>/meminfo.
// Throws ResourceMonitorException "Failed to read total system memory from proc fs" or "Failed to parse system
// memory: '...' (...)".
std::uint64_t ReadTotalMemoryKb(const std::string& proc_root = "/proc");

// Measures the CPU use of this process from <proc_root>/<pid>/stat and its memory from <proc_root>/<pid>/smaps. Each
// thread that paces itself owns a monitor, so nothing is locked.
class ResourceMonitor {
 public:
  // Limits in percent; above 100 throws std::invalid_argument "CPU usage threshold percentage cannot be greater than
  // 100%" or "Memory usage threshold percentage cannot be greater than 100%".
  ResourceMonitor(std::uint64_t cpu_limit, std::uint64_t memory_limit, util::Clock& clock = util::Clock::Real(),
                  const std::string& proc_root = "/proc");

  [[nodiscard]] std::uint64_t GetCpuLimit() const { return cpu_limit_; }
  [[nodiscard]] std::uint64_t GetMemoryLimit() const { return memory_limit_; }
  [[nodiscard]] std::uint64_t GetTotalMemoryKb() const { return total_memory_kb_; }

  // Percent of all processors since the last sample; the first one since construction. A sample is taken at most once
  // in 1.001 seconds; between samples the last result is returned and nothing is read. Throws ResourceMonitorException
  // when the file cannot be read or understood.
  float GetCpuUsagePercent();

  // Resident memory in percent of the machine's. A walk through the mappings is dear: it is done at most once in more
  // than a minute, the first one a minute after construction (0 until then). A walk that finds nothing, or no file,
  // leaves the last result.
  float GetMemoryUsagePercent();

 private:
  std::uint64_t cpu_limit_;
  std::uint64_t memory_limit_;
  util::Clock& clock_;
  std::string stat_path_;
  std::string smaps_path_;
  std::uint64_t total_memory_kb_;
  long processor_count_;
  long ticks_per_second_;
  float cpu_usage_percent_ = 0;
  util::Clock::SteadyTime last_cpu_sample_;
  std::uint64_t last_cpu_ticks_ = 0;
  float memory_usage_percent_ = 0;
  util::Clock::SteadyTime last_memory_sample_;
  CircularBuffer<std::uint64_t, 10> memory_samples_;  // KB
};

}  // namespace zagent::common
