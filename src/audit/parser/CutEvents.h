#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "src/audit/events/IntakeCounters.h"

namespace zagent::audit::internal {

// Audit events that came apart. The kernel sends an event record by record, and when the daemon had no turn for half a
// second it sends the rest of a queue later, behind newer events; a flush cuts an event whose other records are still
// to come. The assembler tells such an event in parts: one with the call, but without the records that an event of it
// needs, and others with those.
//
// Keeps parts until one of the same event comes. Bounds: kMostParts, kMostBytes, and a minute of the kernel's time;
// beyond them the oldest go, and calls among them are counted as events that could not be built. One thread at a time.
class CutEvents {
 public:
  static constexpr std::size_t kMostParts = 1024;
  static constexpr std::size_t kMostBytes = 8'388'608;
  static constexpr std::int64_t kKeptTime = 60'000'000'000;  // nanoseconds

  struct Part {
    std::string event;           // what it is known by: time, serial number and machine
    std::int64_t timestamp = 0;  // nanoseconds
    bool has_call = false;
    std::string records;  // lines
  };

  explicit CutEvents(IntakeCounters& counters) : counters_(counters) {}
  CutEvents(const CutEvents&) = delete;
  CutEvents& operator=(const CutEvents&) = delete;
  ~CutEvents() { GiveUp(); }

  // All records of the event that are there by now, if they are more than those of `part` and the call is among them;
  // then nothing is kept of it. The call comes first and what ends an event last. Otherwise empty, and the part is
  // kept.
  std::string Join(Part part);

  // Counts what still waits, and forgets it.
  void GiveUp();

  // Parts that came so far.
  [[nodiscard]] std::uint64_t GetPartCount() const { return part_count_; }

 private:
  // The parts of an event that wait; their bytes still count.
  std::vector<Part> TakeOf(const std::string& event);
  void Keep(Part part);
  void DropOldest();

  IntakeCounters& counters_;
  std::deque<Part> parts_;  // oldest first
  std::size_t bytes_ = 0;
  std::uint64_t part_count_ = 0;
};

}  // namespace zagent::audit::internal
