#pragma once

#include "common/src/http/HttpRetryPolicy.h"

namespace zagent::common {

// The first attempt and up to `max_attempts` more, with the same interval before each. Only a "429 Too Many Requests"
// lengthens it, by half an interval's power for every attempt made.
class DefaultHttpRetryPolicy final : public HttpRetryPolicy {
 public:
  // Throws std::invalid_argument "HttpRetryPolicy: Backoff interval cannot be greater than 3600 seconds".
  DefaultHttpRetryPolicy(std::uint64_t max_attempts, std::int64_t interval_seconds, Predicate predicate = {},
                         util::Clock& clock = util::Clock::Real());

  [[nodiscard]] std::unique_ptr<HttpRetryPolicy> Clone() const override;

 protected:
  bool OnFinish(HttpStatus status, long http_code) override;
  void GiveBackAttempt() override { --attempts_; }

 private:
  bool HandleSuccess();
  bool HandleClientError(long http_code);
  bool HandleServerError();
  bool HandleProxyOrNetworkError();
  static bool HandleUnknownError();

  std::uint64_t max_attempts_;
  std::uint64_t attempts_ = 0;
  std::int64_t base_interval_;
};

}  // namespace zagent::common
