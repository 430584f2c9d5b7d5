#include "src/audit/rules/Progress.h"

#include <chrono>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

constexpr std::chrono::seconds kInterval{5};

}  // namespace

Progress::Progress(common::util::Clock& clock, std::string what, std::size_t total)
    : clock_(clock), what_(std::move(what)), total_(total), next_(clock.SteadyNow() + kInterval) {}

void Progress::Step() {
  ++done_;
  if (clock_.SteadyNow() < next_) return;
  ZLOG_INFO(what_ << " " << done_ << " of " << total_ << " rules");
  next_ = clock_.SteadyNow() + kInterval;
}

}  // namespace zagent::audit::internal
