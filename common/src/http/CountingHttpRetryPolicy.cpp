#include "common/src/http/CountingHttpRetryPolicy.h"

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr long kTooManyRequests = 429;

bool IsSuccess(HttpStatus status) {
  return status == HttpStatus::Success || status == HttpStatus::PartialSuccess;
}

}  // namespace

CountingHttpRetryPolicy::CountingHttpRetryPolicy(const char* name, std::optional<std::uint64_t> max_attempts,
                                                 std::int64_t interval_seconds, Predicate predicate, util::Clock& clock)
    : HttpRetryPolicy(interval_seconds, std::move(predicate), clock),
      name_(name),
      max_attempts_(max_attempts),
      base_interval_(interval_seconds) {}

bool CountingHttpRetryPolicy::OnFinish(HttpStatus status, long http_code) {
  CountAttempt();
  if (IsUsedUp(status)) {
    ZLOG_TRACE(name_ << "::OnFinish: Max attempts reached.");
    SetExhausted();
    return false;
  }
  switch (status) {
    case HttpStatus::Aborted:
      return false;
    case HttpStatus::Success:
    case HttpStatus::PartialSuccess:
      attempts_ = 0;
      return Answer(true, "HandleSuccess: Retrying on success/partial success.");
    case HttpStatus::ClientError:
      return JudgeClientError(http_code);
    case HttpStatus::ServerError:
      return Retry("HandleServerError: Retrying on server error.", GetWait());
    case HttpStatus::NetworkError:
    case HttpStatus::ProxyError:
      return Retry("HandleProxyOrNetworkError: Retrying on proxy or network error.", GetWait());
    case HttpStatus::NotStarted:
      break;
  }
  return Answer(false, "HandleUnknownError: Not retrying on unknown error.");
}

bool CountingHttpRetryPolicy::IsUsedUp(HttpStatus status) const {
  if (IsSuccess(status) || !max_attempts_ || attempts_ <= *max_attempts_) return false;
  return *max_attempts_ == 0 || !MovesToNextProxy(status);
}

bool CountingHttpRetryPolicy::JudgeClientError(long http_code) {
  if (http_code != kTooManyRequests) return Answer(false, "HandleClientError: Not retrying on client error.");
  return Retry("HandleClientError: Retrying on 429.", GetWaitWhenBusy());
}

bool CountingHttpRetryPolicy::Retry(const char* text, std::int64_t wait) {
  SetInterval(wait);
  return Answer(true, text);
}

bool CountingHttpRetryPolicy::Answer(bool answer, const char* text) const {
  ZLOG_TRACE(name_ << "::" << text);
  return answer;
}

}  // namespace zagent::common
