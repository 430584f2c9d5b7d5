#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::edr::host {

// The one place that knows what all queues and caches of the process hold together: one Debug line a minute. One
// thread.
class QueueReport {
 public:
  static constexpr std::chrono::minutes kInterval{1};

  struct Gauge {
    std::string name;
    std::function<std::uint64_t()> bytes;
  };

  explicit QueueReport(std::vector<Gauge> gauges, common::util::Clock& clock = common::util::Clock::Real());

  // Made to be called often: asks the clock first.
  void TellWhenDue();
  // "123 KB (parser queue 100 KB, events 23 KB)", in the order of the gauges.
  [[nodiscard]] std::string Describe() const;

 private:
  const std::vector<Gauge> gauges_;
  common::util::Clock& clock_;
  common::util::Clock::SteadyTime next_;
};

}  // namespace zagent::edr::host
