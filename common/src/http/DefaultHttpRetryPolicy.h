#pragma once

#include "common/src/http/CountingHttpRetryPolicy.h"

namespace zagent::common {

// The first attempt and up to `max_attempts` more, with the same interval before each. Only a "429 Too Many Requests"
// lengthens it, by half an interval's power for every attempt made.
class DefaultHttpRetryPolicy final : public CountingHttpRetryPolicy {
 public:
  // Throws std::invalid_argument "HttpRetryPolicy: Backoff interval cannot be greater than 3600 seconds".
  DefaultHttpRetryPolicy(std::uint64_t max_attempts, std::int64_t interval_seconds, Predicate predicate = {},
                         util::Clock& clock = util::Clock::Real());

  [[nodiscard]] std::unique_ptr<HttpRetryPolicy> Clone() const override;

 protected:
  void CountAttempt() override;
  [[nodiscard]] std::int64_t GetWait() const override { return GetBaseInterval(); }
  [[nodiscard]] std::int64_t GetWaitWhenBusy() const override;

 private:
  std::uint64_t max_attempts_;
};

}  // namespace zagent::common
