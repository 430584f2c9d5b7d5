#include "common/src/tasks/ResourceMonitor.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zagent::common {
namespace {

constexpr std::chrono::nanoseconds kSampleInterval{1'000'999'999};
constexpr std::chrono::seconds kMemorySampleInterval{60};
constexpr std::string_view kMemTotal = "MemTotal:";

std::uint64_t ParseKb(const std::string& text) {
  try {
    return std::stoull(text);
  } catch (const std::exception& error) {
    throw ResourceMonitorException("Failed to parse system memory: '" + text + "' (" + error.what() + ")");
  }
}

std::uint64_t CheckedLimit(std::uint64_t limit, const char* text) {
  if (limit > 100) throw std::invalid_argument(text);
  return limit;
}

// utime and stime, in clock ticks, of a line of the file stat.
std::uint64_t CpuTicks(const std::string& line) {
  // The command's name stands in parentheses and may hold blanks and parentheses of its own.
  const std::size_t name_end = line.rfind(')');
  if (name_end == std::string::npos) throw ResourceMonitorException("Failed to parse /proc/stat for CPU usage");
  std::istringstream rest(line.substr(name_end + 1));
  constexpr int kFieldsBeforeUtime = 11;  // the state is the 3rd field of the line, utime the 14th, stime the 15th
  std::string skipped;
  for (int i = 0; i < kFieldsBeforeUtime; ++i) rest >> skipped;
  std::uint64_t utime = 0;
  std::uint64_t stime = 0;
  if (!(rest >> utime >> stime)) throw ResourceMonitorException("Failed to parse /proc/stat for CPU usage");
  return utime + stime;
}

std::uint64_t ReadCpuTicks(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  if (!std::getline(in, text, '\0')) {
    throw ResourceMonitorException("Failed to read CPU usage info from /proc/stat");
  }
  try {
    return CpuTicks(text);
  } catch (const ResourceMonitorException&) {
    throw;
  } catch (const std::exception&) {
    throw ResourceMonitorException("Unknown error when parsing /proc/stat for CPU usage");
  }
}

// The sum of all lines "Rss:" in KB. Numbers that are none count as nothing.
std::uint64_t ReadResidentKb(const std::string& path) {
  constexpr std::string_view kRss = "Rss:";
  std::ifstream in(path);
  std::string line;
  std::uint64_t sum = 0;
  while (std::getline(in, line)) {
    if (line.compare(0, kRss.size(), kRss) == 0) sum += std::strtoull(line.c_str() + kRss.size(), nullptr, 10);
  }
  return sum;
}

}  // namespace

std::uint64_t ReadTotalMemoryKb(const std::string& proc_root) {
  std::ifstream in(proc_root + "/meminfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, kMemTotal.size(), kMemTotal) != 0) continue;
    std::istringstream rest(line.substr(kMemTotal.size()));
    std::string number;
    rest >> number;
    return ParseKb(number);
  }
  throw ResourceMonitorException("Failed to read total system memory from proc fs");
}

ResourceMonitor::ResourceMonitor(std::uint64_t cpu_limit, std::uint64_t memory_limit, util::Clock& clock,
                                 const std::string& proc_root)
    : cpu_limit_(CheckedLimit(cpu_limit, "CPU usage threshold percentage cannot be greater than 100%")),
      memory_limit_(CheckedLimit(memory_limit, "Memory usage threshold percentage cannot be greater than 100%")),
      clock_(clock),
      stat_path_(proc_root + "/" + std::to_string(getpid()) + "/stat"),
      smaps_path_(proc_root + "/" + std::to_string(getpid()) + "/smaps"),
      total_memory_kb_(ReadTotalMemoryKb(proc_root)),
      processor_count_(sysconf(_SC_NPROCESSORS_CONF)),
      ticks_per_second_(sysconf(_SC_CLK_TCK)),
      last_cpu_sample_(clock.SteadyNow()),
      last_memory_sample_(last_cpu_sample_) {
  try {
    last_cpu_ticks_ = ReadCpuTicks(stat_path_);
  } catch (const ResourceMonitorException&) {  // NOLINT(bugprone-empty-catch): whoever asks for a reading is told
  }
}

float ResourceMonitor::GetCpuUsagePercent() {
  const util::Clock::SteadyTime now = clock_.SteadyNow();
  const auto elapsed = now - last_cpu_sample_;
  if (elapsed <= kSampleInterval) return cpu_usage_percent_;
  const std::uint64_t ticks = ReadCpuTicks(stat_path_);
  const auto used = static_cast<float>(ticks > last_cpu_ticks_ ? ticks - last_cpu_ticks_ : 0);
  const auto elapsed_ms = static_cast<float>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
  cpu_usage_percent_ =
      used * 1000 / static_cast<float>(ticks_per_second_) * 100 / elapsed_ms / static_cast<float>(processor_count_);
  last_cpu_ticks_ = ticks;
  last_cpu_sample_ = now;
  return cpu_usage_percent_;
}

float ResourceMonitor::GetMemoryUsagePercent() {
  const util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now - last_memory_sample_ <= kMemorySampleInterval) return memory_usage_percent_;
  const std::uint64_t resident = ReadResidentKb(smaps_path_);
  if (resident != 0) memory_usage_percent_ = static_cast<float>(resident) * 100 / static_cast<float>(total_memory_kb_);
  if (memory_samples_.IsFull()) memory_samples_.Pop();
  memory_samples_.Insert(resident);
  last_memory_sample_ = now;
  return memory_usage_percent_;
}

}  // namespace zagent::common
