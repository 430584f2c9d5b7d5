#pragma once

#include <cstdint>

#include "src/health/HealthStatus.h"

namespace zagent::health {

// Whom the parts of the program tell how they do. All calls from any thread; none throws, and what cannot be kept is
// logged here.
class HealthReporter {
 public:
  HealthReporter() = default;
  HealthReporter(const HealthReporter&) = delete;
  HealthReporter& operator=(const HealthReporter&) = delete;
  virtual ~HealthReporter() = default;

  // Made to be told again and again: only what differs in state or fields from the last status of its code and context
  // counts. May write to disk: not for the threads that events pass through.
  virtual void Report(HealthStatus status) noexcept = 0;

  // Documents of events that a spool did not take; they appear in the next status of the intake. Only counts.
  virtual void CountRefused(std::uint64_t documents) noexcept = 0;

  // A file of a spool that went before it was sent, and its bytes; they appear there too. Only counts.
  virtual void CountRemovedFile(std::uint64_t bytes) noexcept = 0;

  // Events that a component could not take or not process; they appear there too. Only counts.
  virtual void CountDropped(std::uint64_t events) noexcept = 0;
};

}  // namespace zagent::health
