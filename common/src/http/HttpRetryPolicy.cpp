#include "common/src/http/HttpRetryPolicy.h"

#include <algorithm>
#include <stdexcept>

#include "common/src/http/HttpProxy.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

bool IsOfTheRoute(HttpStatus status) {
  return status == HttpStatus::NetworkError || status == HttpStatus::ProxyError;
}

}  // namespace

HttpRetryPolicy::HttpRetryPolicy(std::int64_t interval_seconds, Predicate predicate, util::Clock& clock)
    : interval_seconds_(interval_seconds), predicate_(std::move(predicate)), clock_(&clock) {
  if (interval_seconds > kMaxInterval) {
    throw std::invalid_argument("HttpRetryPolicy: Backoff interval cannot be greater than " +
                                std::to_string(kMaxInterval) + " seconds");
  }
}

bool HttpRetryPolicy::Finish(HttpStatus status, long http_code) {
  allowed_ = OnFinish(status, http_code);
  if (allowed_ && predicate_ && !predicate_(status, http_code)) allowed_ = false;
  if (allowed_ && IsOfTheRoute(status)) {
    MoveOn(status);
  } else {
    last_attempt_ = clock_->SteadyNow();
    if (status == HttpStatus::Success) proxy_index_ = 0;
  }
  ZLOG_DEBUG("HttpRetryPolicy::Finish: " << (allowed_ ? "Allowing" : "Not allowing") << " retry for HTTP response code "
                                         << http_code);
  if (exhausted_) {
    ZLOG_DEBUG("HttpRetryPolicy::Finish: Retries exhausted, not allowing retry for HTTP response code " << http_code);
  }
  return allowed_;
}

bool HttpRetryPolicy::MovesToNextProxy(HttpStatus status) const {
  return IsOfTheRoute(status) && proxy_ != nullptr && !proxy_->IsDirectAttempt() && proxy_index_ + 1 < proxy_->Size();
}

void HttpRetryPolicy::MoveOn(HttpStatus status) {
  if (!MovesToNextProxy(status)) {
    ZLOG_TRACE("HttpRetryPolicy::Finish: All proxies exhausted, moving to next retry attempt on network/proxy error.");
    last_attempt_ = clock_->SteadyNow();
    proxy_index_ = 0;
  } else {
    ZLOG_TRACE("HttpRetryPolicy::Finish: Moving to next proxy on network/proxy error.");
    last_attempt_ = kLongAgo;  // an interval that has grown since the last one must not hold up the next proxy
    ++proxy_index_;
    GiveBackAttempt();
  }
  if (proxy_ != nullptr) proxy_->SetNextProxy();
}

bool HttpRetryPolicy::IsRetryDue() const {
  return allowed_ && clock_->SteadyNow() >= GetRetryTime();
}

util::Clock::SteadyTime HttpRetryPolicy::GetRetryTime() const {
  return last_attempt_ + std::chrono::seconds(interval_seconds_);
}

std::chrono::nanoseconds HttpRetryPolicy::GetRemainingWait() const {
  return std::max<std::chrono::nanoseconds>(GetRetryTime() - clock_->SteadyNow(), std::chrono::nanoseconds(0));
}

void HttpRetryPolicy::SetInterval(std::int64_t seconds) {
  interval_seconds_ = std::min(seconds, kMaxInterval);
}

}  // namespace zagent::common
