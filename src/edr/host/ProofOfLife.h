#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "src/audit/channels/AuditStatusProbe.h"

namespace zagent::edr::host {

// Finds out that audit has fallen silent, which leaves no other trace: somebody's rule stands in front of the
// program's, audit was switched off, somebody else took the records. Every ten minutes something that the rules watch
// is done on purpose, by a process that no exclusion covers, and its event must come.
//
// An event that has not come when the intake had nothing else to do for a minute is missing. Time in which the intake
// is busy, or paused, does not count: what is queued may be the event. Where something was lost meanwhile that may have
// been the event nothing is known, and the deed is done once more.
//
// One thread, but Heard may be called from any.
class ProofOfLife {
 public:
  static constexpr std::chrono::minutes kInterval{10};
  static constexpr std::chrono::seconds kPatience{60};
  // Two looks further apart than this say little of the time between them; no more of it counts.
  static constexpr std::chrono::seconds kMaxStep{2};
  // For the kernel, to tell its status.
  static constexpr std::chrono::seconds kAnswerTime{5};
  // Between two warnings that the deed cannot be done.
  static constexpr std::chrono::hours kWarningInterval{24};

  struct Ports {
    std::function<bool()> touch;                          // does the deed; false when it cannot be done now
    std::function<bool()> is_idle;                        // nothing is queued in the intake, and nothing is paused
    std::function<std::uint64_t()> losses;                // another number than before: events may have been lost
    std::function<void()> install_rules;                  // once more; may throw
    std::function<void(const std::string& why)> silence;  // told at its beginning, and with an empty text at its end
  };

  // `consumer_pid` is who must get the kernel's records; 0 when any audit daemon may. `netlink` and `clock` outlive
  // this object.
  ProofOfLife(Ports ports, audit::AuditNetlink& netlink, std::uint32_t consumer_pid,
              common::util::Clock& clock = common::util::Clock::Real());

  // Made to be called about once a second: never waits.
  void RunWhenDue();
  // The event has come.
  void Heard() { heard_ = true; }

 private:
  using SteadyTime = common::util::Clock::SteadyTime;

  void Begin(SteadyTime now);
  void TellThatThereIsNone(SteadyTime now);
  void Await(SteadyTime now);
  void AwaitStatus(SteadyTime now);
  void OnHeard();
  void OnMissing(SteadyTime now, const std::optional<audit::AuditStatus>& status);
  [[nodiscard]] std::string Explain(const std::optional<audit::AuditStatus>& status) const;

  enum class Step { Rest, Await, AwaitStatus };

  const Ports ports_;
  common::util::Clock& clock_;
  const std::uint32_t consumer_pid_;
  audit::AuditStatusProbe probe_;
  std::atomic<bool> heard_{false};
  Step step_ = Step::Rest;
  SteadyTime next_;
  SteadyTime next_warning_;
  SteadyTime last_look_;
  SteadyTime answer_deadline_;
  std::uint64_t losses_ = 0;  // before the deed
  bool was_idle_ = false;
  std::chrono::nanoseconds idle_time_{0};
  std::string silence_;  // why; empty while audit speaks
};

}  // namespace zagent::edr::host
