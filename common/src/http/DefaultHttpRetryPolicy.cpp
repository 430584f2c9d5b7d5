#include "common/src/http/DefaultHttpRetryPolicy.h"

#include <cmath>

#include "common/src/util/Log.h"

namespace zagent::common {

DefaultHttpRetryPolicy::DefaultHttpRetryPolicy(std::uint64_t max_attempts, std::int64_t interval_seconds,
                                               Predicate predicate, util::Clock& clock)
    : CountingHttpRetryPolicy("DefaultHttpRetryPolicy", max_attempts, interval_seconds, std::move(predicate), clock),
      max_attempts_(max_attempts) {}

std::unique_ptr<HttpRetryPolicy> DefaultHttpRetryPolicy::Clone() const {
  return std::make_unique<DefaultHttpRetryPolicy>(*this);
}

void DefaultHttpRetryPolicy::CountAttempt() {
  SetAttempts(GetAttempts() + 1);
  ZLOG_DEBUG("DefaultHttpRetryPolicy::OnFinish: Completed attempt " << GetAttempts() << " out of " << max_attempts_
                                                                    << " attempts.");
}

std::int64_t DefaultHttpRetryPolicy::GetWaitWhenBusy() const {
  const double seconds =
      std::round(std::pow(1.5, static_cast<double>(GetAttempts())) * static_cast<double>(GetBaseInterval()));
  return seconds > static_cast<double>(kMaxInterval - 1) ? kMaxInterval : static_cast<std::int64_t>(seconds);
}

}  // namespace zagent::common
