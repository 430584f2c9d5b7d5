#include "src/edr/host/MemoryCheck.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/src/util/HeapTrim.h"
#include "common/src/util/Log.h"

namespace zagent::edr::host {
namespace {

constexpr std::chrono::seconds kInterval{180};
constexpr std::uint64_t kLeastSoftKb = 409'600;
constexpr std::uint64_t kMostSoftKb = 2'097'152;

}  // namespace

MemoryCheck::Limits MemoryCheck::LimitsFor(std::uint64_t memory_limit, std::uint64_t total_memory_kb) {
  const std::uint64_t soft = std::clamp(total_memory_kb * memory_limit / 100, kLeastSoftKb, kMostSoftKb);
  return {soft, static_cast<std::uint64_t>(static_cast<double>(soft) * 1.5)};
}

MemoryCheck::MemoryCheck(common::ResourceMonitor monitor, common::util::Clock& clock)
    : MemoryCheck(std::move(monitor), clock, common::util::TrimHeap) {}

MemoryCheck::MemoryCheck(common::ResourceMonitor monitor, common::util::Clock& clock, Trim trim)
    : monitor_(std::move(monitor)),
      clock_(clock),
      trim_(std::move(trim)),
      limits_(LimitsFor(monitor_.GetMemoryLimit(), monitor_.GetTotalMemoryKb())),
      last_(clock.SteadyNow()) {
  ZLOG_DEBUG("Memory threshold: softLimit: " << limits_.soft_kb << " KB "
                                             << " HardLimit: " << limits_.hard_kb << " KB.");
}

bool MemoryCheck::Run() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now - last_ <= kInterval) return strikes_ == kMaxStrikes;
  ZLOG_DEBUG("MEMCHECK: Memory threshold: softLimit: " << limits_.soft_kb << " KB "
                                                       << " HardLimit: " << limits_.hard_kb << " KB.");
  if (trim_() == 1) {
    ZLOG_DEBUG("MEMCHECK: Memory released back to OS after trim");
  } else {
    ZLOG_DEBUG("MEMCHECK: No memory was released back to OS after trim.");
  }
  const std::uint64_t current = MeasureKb();
  ZLOG_DEBUG("MEMCHECK: Current memory consumption of edr process " << current << " KB");
  if (current > limits_.hard_kb) {
    ++strikes_;
    ZLOG_DEBUG("MEMCHECK: Strike : " << strikes_ << " as memory went over hard limit:  " << limits_.hard_kb << " KB.");
  } else if (current < limits_.soft_kb) {
    strikes_ = 0;
  }
  last_ = now;
  return strikes_ == kMaxStrikes;
}

void MemoryCheck::RunFor(ExitFlag& exit_flag) {
  if (!Run()) return;
  ZLOG_DEBUG("MEMCHECK: Shutting down as memory usage is beyond set hard limit.");
  exit_flag = true;
}

std::uint64_t MemoryCheck::MeasureKb() {
  const double percent = monitor_.GetMemoryUsagePercent();
  return static_cast<std::uint64_t>(percent / 100 * static_cast<double>(monitor_.GetTotalMemoryKb()));
}

}  // namespace zagent::edr::host
