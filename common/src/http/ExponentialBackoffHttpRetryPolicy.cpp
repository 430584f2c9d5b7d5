#include "common/src/http/ExponentialBackoffHttpRetryPolicy.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr long kTooManyRequests = 429;
constexpr std::int32_t kMostAttempts = std::numeric_limits<std::int32_t>::max();

}  // namespace

ExponentialBackoffHttpRetryPolicy::ExponentialBackoffHttpRetryPolicy(std::int32_t max_retries,
                                                                     std::int64_t interval_seconds, Predicate predicate,
                                                                     util::Clock& clock)
    : HttpRetryPolicy(interval_seconds, std::move(predicate), clock),
      max_retries_(max_retries),
      base_interval_(interval_seconds) {
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

bool ExponentialBackoffHttpRetryPolicy::OnFinish(HttpStatus status, long http_code) {
  if (attempts_ == kMostAttempts) {
    ZLOG_DEBUG("ExponentialBackoffHttpRetryPolicy::OnFinish: Attempt count max limit reached = " << kMostAttempts
                                                                                                 << ", reset to 0.");
    attempts_ = 1;
  } else {
    ++attempts_;
  }
  ZLOG_DEBUG("ExponentialBackoffHttpRetryPolicy::OnFinish: Completed attempt "
             << attempts_ << " out of " << (std::int64_t{max_retries_} + 1) << " attempts.");
  if (max_retries_ != kNoLimit && max_retries_ < attempts_) {
    ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::OnFinish: Max attempts reached.");
    SetExhausted();
    return false;
  }
  switch (status) {
    case HttpStatus::Aborted:
      return false;
    case HttpStatus::Success:
    case HttpStatus::PartialSuccess:
      return HandleSuccess();
    case HttpStatus::ClientError:
      return HandleClientError(http_code);
    case HttpStatus::ServerError:
      return HandleServerError();
    case HttpStatus::NetworkError:
    case HttpStatus::ProxyError:
      return HandleProxyOrNetworkError();
    case HttpStatus::NotStarted:
      break;
  }
  return HandleUnknownError();
}

void ExponentialBackoffHttpRetryPolicy::LengthenInterval() {
  SetInterval(Backoff(GetInterval(), base_interval_, attempts_));
}

bool ExponentialBackoffHttpRetryPolicy::HandleSuccess() {
  ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleSuccess: Retrying on success/partial success.");
  attempts_ = 0;
  return true;
}

bool ExponentialBackoffHttpRetryPolicy::HandleClientError(long http_code) {
  if (http_code != kTooManyRequests) {
    ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleClientError: Not retrying on client error.");
    return false;
  }
  ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleClientError: Retrying on 429.");
  LengthenInterval();
  return true;
}

bool ExponentialBackoffHttpRetryPolicy::HandleServerError() {
  ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleServerError: Retrying on server error.");
  LengthenInterval();
  return true;
}

bool ExponentialBackoffHttpRetryPolicy::HandleProxyOrNetworkError() {
  ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleProxyOrNetworkError: Retrying on proxy or network error.");
  LengthenInterval();
  return true;
}

bool ExponentialBackoffHttpRetryPolicy::HandleUnknownError() {
  ZLOG_TRACE("ExponentialBackoffHttpRetryPolicy::HandleUnknownError: Not retrying on unknown error.");
  return false;
}

}  // namespace zagent::common
