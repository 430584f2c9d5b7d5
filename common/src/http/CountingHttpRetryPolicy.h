#pragma once

#include <optional>

#include "common/src/http/HttpRetryPolicy.h"

namespace zagent::common {

// What the policies that count have in common: which statuses are worth another attempt, and when the attempts are used
// up. A failure that moves on to the next proxy of the list, and a success, use up none, so the last round ends with
// the last proxy and a download ends with its last range. With no attempts at all the first failure is the last one,
// whatever proxies there are.
class CountingHttpRetryPolicy : public HttpRetryPolicy {
 public:
  CountingHttpRetryPolicy& operator=(const CountingHttpRetryPolicy&) = delete;
  ~CountingHttpRetryPolicy() override = default;

 protected:
  // `name`: the class, as its log lines begin; it outlives the policy. `max_attempts`: beside the first one; none: no
  // limit. Throws std::invalid_argument for an interval above 3600 seconds.
  CountingHttpRetryPolicy(const char* name, std::optional<std::uint64_t> max_attempts, std::int64_t interval_seconds,
                          Predicate predicate, util::Clock& clock);
  CountingHttpRetryPolicy(const CountingHttpRetryPolicy&) = default;

  bool OnFinish(HttpStatus status, long http_code) final;
  void GiveBackAttempt() final { --attempts_; }

  [[nodiscard]] std::uint64_t GetAttempts() const { return attempts_; }
  void SetAttempts(std::uint64_t attempts) { attempts_ = attempts; }
  [[nodiscard]] std::int64_t GetBaseInterval() const { return base_interval_; }

  // Adds one to the attempts, and tells the log.
  virtual void CountAttempt() = 0;
  // Seconds until the next attempt, behind a failure of server, network or proxy, and behind a 429.
  [[nodiscard]] virtual std::int64_t GetWait() const = 0;
  [[nodiscard]] virtual std::int64_t GetWaitWhenBusy() const = 0;

 private:
  [[nodiscard]] bool IsUsedUp(HttpStatus status) const;
  bool JudgeClientError(long http_code);
  bool Retry(const char* text, std::int64_t wait);
  bool Answer(bool answer, const char* text) const;

  const char* name_;
  std::optional<std::uint64_t> max_attempts_;
  std::uint64_t attempts_ = 0;
  std::int64_t base_interval_;
};

}  // namespace zagent::common
