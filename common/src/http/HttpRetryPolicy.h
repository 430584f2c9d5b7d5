#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "common/src/http/HttpTypes.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

class HttpProxy;

// Decides after every attempt of a request whether another follows and when. A network or proxy failure moves to the
// next proxy of the list at once; only the whole list failing counts as one attempt and waits the interval. So does
// each failure of a request that goes without a proxy, from the beginning or because the list has failed. Belongs to
// one request; used on the HTTP worker only, but for Clone, which happens before the request is queued.
class HttpRetryPolicy {
 public:
  // May veto a retry that the policy would allow.
  using Predicate = std::function<bool(HttpStatus status, long http_code)>;

  static constexpr std::int64_t kMaxInterval = 3600;

  HttpRetryPolicy& operator=(const HttpRetryPolicy&) = delete;
  virtual ~HttpRetryPolicy() = default;

  [[nodiscard]] virtual std::unique_ptr<HttpRetryPolicy> Clone() const = 0;

  // The list that this policy walks; it outlives the policy.
  void SetProxy(HttpProxy& proxy) { proxy_ = &proxy; }

  // The whole decision after an attempt: true when another follows.
  bool Finish(HttpStatus status, long http_code);
  [[nodiscard]] bool IsRetryDue() const;
  // When the next attempt may begin.
  [[nodiscard]] util::Clock::SteadyTime GetRetryTime() const;
  // How long from now until then; zero when it has come.
  [[nodiscard]] std::chrono::nanoseconds GetRemainingWait() const;

  [[nodiscard]] std::int64_t GetInterval() const { return interval_seconds_; }

 protected:
  // Throws std::invalid_argument for an interval above 3600 seconds.
  HttpRetryPolicy(std::int64_t interval_seconds, Predicate predicate, util::Clock& clock);
  HttpRetryPolicy(const HttpRetryPolicy&) = default;

  // The decision of the concrete policy; counts the attempt.
  virtual bool OnFinish(HttpStatus status, long http_code) = 0;
  // The attempt that OnFinish counted was one of several over the proxy list: it does not count.
  virtual void GiveBackAttempt() = 0;

  // True when a failure of this status moves on to a proxy that this round has not tried yet.
  [[nodiscard]] bool MovesToNextProxy(HttpStatus status) const;

  // 3600 and more is stored as 3600.
  void SetInterval(std::int64_t seconds);
  void SetExhausted() { exhausted_ = true; }

 private:
  void MoveOn(HttpStatus status);

  std::int64_t interval_seconds_;
  bool allowed_ = true;
  bool exhausted_ = false;
  Predicate predicate_;
  util::Clock* clock_;
  // Far in the past, so that a policy that has not finished an attempt never makes anybody wait.
  static constexpr util::Clock::SteadyTime kLongAgo{-std::chrono::hours(24 * 365 * 100)};
  util::Clock::SteadyTime last_attempt_ = kLongAgo;
  HttpProxy* proxy_ = nullptr;
  std::size_t proxy_index_ = 0;  // proxies of the list that this round has used up
};

}  // namespace zagent::common
