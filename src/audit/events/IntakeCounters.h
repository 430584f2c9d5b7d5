#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zagent::audit {

// How much of what the kernel sent never became a reported event, by reason, since this object was made. Counted where
// it is lost; whoever watches the intake takes snapshots. Thread-safe, and cheap enough for every event.
class IntakeCounters {
 public:
  enum class Reason : std::uint8_t {
    BytesAtBound,     // bytes: the parser's queue was full
    BytesAtStop,      // bytes: not parsed when the parser stopped
    NotBuilt,         // events whose records do not make one
    UnsupportedCall,  // events of calls that mean nothing to the program
    Unplaced,         // events without a path that can be trusted
    LeftAtStop,       // events that a stopping stage refused or left behind
    FileReplaced,     // file events whose file was replaced or removed while they rested
    NotProcessed,     // events whose processing failed
  };
  static constexpr std::size_t kReasonCount = 8;
  using Snapshot = std::array<std::uint64_t, kReasonCount>;  // by the reason's number

  IntakeCounters() = default;
  ~IntakeCounters() = default;
  IntakeCounters(const IntakeCounters&) = delete;
  IntakeCounters& operator=(const IntakeCounters&) = delete;

  void Add(Reason reason, std::uint64_t count = 1) {
    counts_[static_cast<std::size_t>(reason)].fetch_add(count, std::memory_order_relaxed);
  }
  [[nodiscard]] std::uint64_t Get(Reason reason) const {
    return counts_[static_cast<std::size_t>(reason)].load(std::memory_order_relaxed);
  }
  // Each count by itself is exact; together they may be of slightly different moments.
  [[nodiscard]] Snapshot Take() const;

  // "bytes dropped at the parser's bound" and so on.
  static const char* NameOf(Reason reason);
  // The counts that are not zero: "events that could not be built: 3, events of replaced files: 1". Empty without any.
  static std::string Describe(const Snapshot& counts);

 private:
  std::array<std::atomic<std::uint64_t>, kReasonCount> counts_{};
};

}  // namespace zagent::audit
