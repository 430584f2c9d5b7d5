#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "src/audit/channels/AuditStatusProbe.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/health/HealthReporter.h"

namespace zagent::edr::host {

// Reports how the intake of events does: once a minute it adds up what was lost since its last status, the kernel's own
// losses included.
//
// The intake is bad when something was lost, while it is dead, and while audit is silent, and good again after five
// minutes without. A status says what was lost since the one before; while the state stays the same there is one in
// five minutes at most, and one for each cause of a death or a silence, so that nothing is told twice and nothing is
// left out. What is dropped by design (records that make no event, calls that mean nothing, events of files that were
// replaced) is told along and makes no status bad.
//
// One thread.
class HealthIntake {
 public:
  static constexpr std::chrono::minutes kInterval{1};
  static constexpr std::chrono::minutes kQuietTime{5};
  // A kernel that has not answered by then is asked again the next minute.
  static constexpr std::chrono::seconds kAnswerTime{5};

  struct Sources {
    const audit::IntakeCounters& counters;
    // All since the start, and only growing.
    std::function<std::uint64_t()> refused_documents;  // by the spools
    std::function<std::uint64_t()> removed_files;      // of the spools, before they were sent
    std::function<std::uint64_t()> removed_bytes;      // of these files
    std::function<std::uint64_t()> dropped_events;     // by the components
  };

  // All of them outlive this object. Asks the kernel for its count at once: what is lost from here on is the program's
  // loss, however late the answer is looked at. So it is made before the first rule.
  HealthIntake(Sources sources, audit::AuditNetlink& netlink, health::HealthReporter& reporter,
               common::util::Clock& clock = common::util::Clock::Real());

  // Made to be called often: asks the clock first, and never waits for the kernel.
  void TellWhenDue();
  // What is still to be told, without asking the kernel.
  void TellAtEnd();

  // Records that the kernel has lost since the start, as it said last.
  [[nodiscard]] std::uint64_t KernelLosses() const { return total_.kernel; }

  // Audit has stopped to speak, and why that may be; an empty text: it speaks again.
  void SetSilence(std::string why);
  // The intake has ended, and of what; an empty text: it has begun anew.
  void SetEnd(std::string cause);

 private:
  // What is lost, since the start or since a status.
  struct Losses {
    std::uint64_t kernel = 0;
    std::uint64_t refused = 0;
    std::uint64_t removed_files = 0;
    std::uint64_t removed_bytes = 0;
    std::uint64_t dropped = 0;
    audit::IntakeCounters::Snapshot counts{};

    [[nodiscard]] Losses Since(const Losses& earlier) const;
    [[nodiscard]] bool IsLoss() const;
    [[nodiscard]] health::Fields AsFields() const;
  };

  // What makes the intake bad as long as it lasts.
  struct Condition {
    std::string why;   // empty: it does not last
    std::string told;  // while it lasts, the last cause that a status has told
  };

  void Ask();
  void Set(Condition& condition, std::string why);
  void Judge(const std::optional<audit::AuditStatus>& status);
  void AddKernelLosses(const audit::AuditStatus& status);
  void Report(health::State state);

  const Sources sources_;
  health::HealthReporter& reporter_;
  common::util::Clock& clock_;
  audit::AuditStatusProbe probe_;
  common::util::Clock::SteadyTime next_ask_;
  std::optional<common::util::Clock::SteadyTime> answer_deadline_;  // while the kernel is asked
  std::optional<std::uint32_t> kernel_lost_;                        // as it said last
  Losses total_;
  Losses seen_;  // at the last look
  Losses told_;  // with the last status
  std::string told_since_;
  Condition silence_;
  Condition end_;
  std::optional<health::State> state_;
  common::util::Clock::SteadyTime told_at_;
  common::util::Clock::SteadyTime last_trouble_;
};

}  // namespace zagent::edr::host
