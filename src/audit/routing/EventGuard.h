#pragma once

#include <cstdint>

#include "src/audit/events/IntakeCounters.h"

namespace zagent::audit::internal {

// Counts and logs the exception that is being handled.
void LoseEvent(std::uint32_t event_id, IntakeCounters& counters, IntakeCounters::Reason expected_loss);

// Runs one event's step and lets nothing out of it; false when it failed. What belongs to an event's life (its file is
// gone or replaced, it cannot be judged, its process cannot be known) is of interest to developers only and counts as
// `expected_loss`; anything else counts as not processed and is an error.
template <typename Step>
bool GuardEvent(std::uint32_t event_id, IntakeCounters& counters, IntakeCounters::Reason expected_loss,
                const Step& step) {
  try {
    step();
    return true;
  } catch (...) {
    LoseEvent(event_id, counters, expected_loss);
    return false;
  }
}

}  // namespace zagent::audit::internal
