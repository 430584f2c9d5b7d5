#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

#include "common/src/util/Clock.h"

namespace zagent::edr::host {

// Hears when the intake (audit channel, parser, event stage) has ended by itself and decides what follows: a start anew
// after five seconds, or the end of the daemon when it has happened three times within ten minutes. Where restarts are
// not wanted nothing follows: the daemon goes on without events. Thread-safe.
class IntakeWatch {
 public:
  enum class Step { Nothing, Restart, GiveUp };

  static constexpr std::chrono::seconds kBeforeRestart{5};
  static constexpr std::size_t kMaxFailures = 3;
  static constexpr std::chrono::minutes kFailuresCountFor{10};

  explicit IntakeWatch(bool restarts, common::util::Clock& clock = common::util::Clock::Real())
      : restarts_(restarts), clock_(clock) {}

  // The intake has died of `cause`, or could not be started anew: one error line. What dies after it, until BeginRun,
  // dies of the same and is not counted again.
  void OnEnded(const std::string& cause);

  // Until BeginRun.
  [[nodiscard]] bool HasEnded() const;
  // What it has died of; empty while it runs.
  [[nodiscard]] std::string EndCause() const;

  // What the host has to do now; made to be asked once a second.
  [[nodiscard]] Step NextStep();
  // The old intake is down, a new one is about to start.
  void BeginRun();

 private:
  const bool restarts_;
  common::util::Clock& clock_;
  mutable std::mutex mutex_;
  bool ended_ = false;
  std::string cause_;                                     // of the end
  std::deque<common::util::Clock::SteadyTime> failures_;  // those that still count; at most kMaxFailures
};

}  // namespace zagent::edr::host
