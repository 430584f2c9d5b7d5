#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "src/audit/events/IntakeCounters.h"

namespace zagent::audit::internal {

// Audit events that came apart. The kernel sends an event record by record, and when the daemon had no turn for half a
// second it sends the rest of a queue later, behind newer events; a flush cuts an event whose other records are still
// to come. auparse gives such an event out in parts: one with the call, but without the records that an event of it
// needs, and others with those.
//
// Keeps parts until one of the same event comes. Bounds: kMostParts, kMostBytes, and a minute of the kernel's time;
// beyond them the oldest go, and calls among them are counted as events that could not be built. One thread at a time.
class CutEvents {
 public:
  static constexpr std::size_t kMostParts = 256;
  static constexpr std::size_t kMostBytes = 1'048'576;
  static constexpr std::int64_t kKeptTime = 60'000'000'000;  // nanoseconds

  struct Part {
    std::uint32_t id = 0;        // the event's serial number
    std::int64_t timestamp = 0;  // the event's, in nanoseconds
    bool has_call = false;
    std::string records;  // lines
  };

  explicit CutEvents(IntakeCounters& counters) : counters_(counters) {}
  CutEvents(const CutEvents&) = delete;
  CutEvents& operator=(const CutEvents&) = delete;
  ~CutEvents();

  // All records of the event that are there by now, the call first, if they are more than those of `part` and the call
  // is among them; then nothing is kept of it. Otherwise empty, and the part is kept. An event whose parts do not
  // become more when it comes again is given up: records that auparse always takes apart would come for ever.
  std::string Join(Part part);

 private:
  struct Joined {
    std::uint32_t id = 0;
    std::int64_t timestamp = 0;
    std::size_t bytes = 0;
  };

  // Whether so many bytes of the event are more than ever before, as far as that is remembered.
  bool IsProgress(const Part& part, std::size_t bytes);
  void Keep(Part part);
  void DropOldest();

  IntakeCounters& counters_;
  std::array<Joined, 16> joined_{};
  std::size_t oldest_joined_ = 0;
  std::deque<Part> parts_;  // oldest first
  std::size_t bytes_ = 0;
};

}  // namespace zagent::audit::internal
