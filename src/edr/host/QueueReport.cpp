#include "src/edr/host/QueueReport.h"

#include <utility>

#include "common/src/util/Log.h"

namespace zagent::edr::host {

QueueReport::QueueReport(std::vector<Gauge> gauges, common::util::Clock& clock)
    : gauges_(std::move(gauges)), clock_(clock), next_(clock.SteadyNow() + kInterval) {}

void QueueReport::TellWhenDue() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now < next_) return;
  next_ = now + kInterval;
  ZLOG_DEBUG("Queues and caches hold " << Describe());
}

std::string QueueReport::Describe() const {
  std::uint64_t sum = 0;
  std::string parts;
  for (const Gauge& gauge : gauges_) {
    const std::uint64_t bytes = gauge.bytes();
    sum += bytes;
    parts += (parts.empty() ? "" : ", ") + gauge.name + " " + std::to_string(bytes / 1024) + " KB";
  }
  return std::to_string(sum / 1024) + " KB (" + parts + ")";
}

}  // namespace zagent::edr::host
