#pragma once

#include "common/src/http/CountingHttpRetryPolicy.h"

namespace zagent::common {

// The first attempt and up to `max_retries` more, without a limit for -1. The first retry waits the base interval, each
// that follows half as much again, up to an hour.
class ExponentialBackoffHttpRetryPolicy final : public CountingHttpRetryPolicy {
 public:
  static constexpr std::int32_t kNoLimit = -1;

  // Throws std::invalid_argument "HttpRetryPolicy: Backoff interval cannot be greater than 3600 seconds" and
  // "ExponentialBackoffHttpRetryPolicy: Invalid max-retries = <value>" for less than -1.
  ExponentialBackoffHttpRetryPolicy(std::int32_t max_retries, std::int64_t interval_seconds, Predicate predicate = {},
                                    util::Clock& clock = util::Clock::Real());

  [[nodiscard]] std::unique_ptr<HttpRetryPolicy> Clone() const override;

  // The wait before the next attempt, in seconds, when `current` was the last wait and `attempts` have been made.
  [[nodiscard]] static std::int64_t Backoff(std::int64_t current, std::int64_t base, std::int32_t attempts);

 protected:
  void CountAttempt() override;
  [[nodiscard]] std::int64_t GetWait() const override;
  [[nodiscard]] std::int64_t GetWaitWhenBusy() const override { return GetWait(); }

 private:
  std::int32_t max_retries_;
};

}  // namespace zagent::common
