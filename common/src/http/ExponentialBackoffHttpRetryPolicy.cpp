#include "common/src/http/ExponentialBackoffHttpRetryPolicy.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::int32_t kMostAttempts = std::numeric_limits<std::int32_t>::max();

std::optional<std::uint64_t> LimitOf(std::int32_t max_retries) {
  if (max_retries < 0) return std::nullopt;
  return static_cast<std::uint64_t>(max_retries);
}

}  // namespace

ExponentialBackoffHttpRetryPolicy::ExponentialBackoffHttpRetryPolicy(std::int32_t max_retries,
                                                                     std::int64_t interval_seconds, Predicate predicate,
                                                                     util::Clock& clock)
    : CountingHttpRetryPolicy("ExponentialBackoffHttpRetryPolicy", LimitOf(max_retries), interval_seconds,
                              std::move(predicate), clock),
      max_retries_(max_retries) {
  if (max_retries < kNoLimit) {
    throw std::invalid_argument("ExponentialBackoffHttpRetryPolicy: Invalid max-retries = " +
                                std::to_string(max_retries));
  }
}

std::unique_ptr<HttpRetryPolicy> ExponentialBackoffHttpRetryPolicy::Clone() const {
  return std::make_unique<ExponentialBackoffHttpRetryPolicy>(*this);
}

std::int64_t ExponentialBackoffHttpRetryPolicy::Backoff(std::int64_t current, std::int64_t base,
                                                        std::int32_t attempts) {
  if (attempts == 0) return base;
  if (current > kMaxInterval - 1) return kMaxInterval;
  const double seconds = std::round(std::pow(1.5, static_cast<double>(attempts - 1)) * static_cast<double>(base));
  return seconds > static_cast<double>(kMaxInterval) ? kMaxInterval : static_cast<std::int64_t>(seconds);
}

void ExponentialBackoffHttpRetryPolicy::CountAttempt() {
  if (GetAttempts() == kMostAttempts) {
    ZLOG_DEBUG("ExponentialBackoffHttpRetryPolicy::OnFinish: Attempt count max limit reached = " << kMostAttempts
                                                                                                 << ", reset to 0.");
    SetAttempts(1);
  } else {
    SetAttempts(GetAttempts() + 1);
  }
  ZLOG_DEBUG("ExponentialBackoffHttpRetryPolicy::OnFinish: Completed attempt "
             << GetAttempts() << " out of " << (std::int64_t{max_retries_} + 1) << " attempts.");
}

std::int64_t ExponentialBackoffHttpRetryPolicy::GetWait() const {
  return Backoff(GetInterval(), GetBaseInterval(), static_cast<std::int32_t>(GetAttempts()));
}

}  // namespace zagent::common
