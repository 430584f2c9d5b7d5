#include "common/src/http/DefaultHttpRetryPolicy.h"

#include <cmath>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr long kTooManyRequests = 429;

}  // namespace

DefaultHttpRetryPolicy::DefaultHttpRetryPolicy(std::uint64_t max_attempts, std::int64_t interval_seconds,
                                               Predicate predicate, util::Clock& clock)
    : HttpRetryPolicy(interval_seconds, std::move(predicate), clock),
      max_attempts_(max_attempts),
      base_interval_(interval_seconds) {}

std::unique_ptr<HttpRetryPolicy> DefaultHttpRetryPolicy::Clone() const {
  return std::make_unique<DefaultHttpRetryPolicy>(*this);
}

bool DefaultHttpRetryPolicy::OnFinish(HttpStatus status, long http_code) {
  ++attempts_;
  ZLOG_DEBUG("DefaultHttpRetryPolicy::OnFinish: Completed attempt " << attempts_ << " out of " << max_attempts_
                                                                    << " attempts.");
  if (attempts_ > max_attempts_) {
    ZLOG_TRACE("DefaultHttpRetryPolicy::OnFinish: Max attempts reached.");
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

bool DefaultHttpRetryPolicy::HandleSuccess() {
  ZLOG_TRACE("DefaultHttpRetryPolicy::HandleSuccess: Retrying on success/partial success.");
  attempts_ = 0;
  return true;
}

bool DefaultHttpRetryPolicy::HandleClientError(long http_code) {
  if (http_code != kTooManyRequests) {
    ZLOG_TRACE("DefaultHttpRetryPolicy::HandleClientError: Not retrying on client error.");
    return false;
  }
  ZLOG_TRACE("DefaultHttpRetryPolicy::HandleClientError: Retrying on 429.");
  const double seconds =
      std::round(std::pow(1.5, static_cast<double>(attempts_)) * static_cast<double>(base_interval_));
  SetInterval(seconds > static_cast<double>(kMaxInterval - 1) ? kMaxInterval : static_cast<std::int64_t>(seconds));
  return true;
}

bool DefaultHttpRetryPolicy::HandleServerError() {
  ZLOG_TRACE("DefaultHttpRetryPolicy::HandleServerError: Retrying on server error.");
  SetInterval(base_interval_);
  return true;
}

bool DefaultHttpRetryPolicy::HandleProxyOrNetworkError() {
  ZLOG_TRACE("DefaultHttpRetryPolicy::HandleProxyOrNetworkError: Retrying on proxy or network error.");
  SetInterval(base_interval_);
  return true;
}

bool DefaultHttpRetryPolicy::HandleUnknownError() {
  ZLOG_TRACE("DefaultHttpRetryPolicy::HandleUnknownError: Not retrying on unknown error.");
  return false;
}

}  // namespace zagent::common
