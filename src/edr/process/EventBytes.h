#pragma once

#include <cstdint>

#include "src/edr/Event.h"

namespace zagent::edr {

// What an ordinary event holds on the heap while it waits, as the benchmark of the intake measures it.
inline constexpr std::uint64_t kOrdinaryEventBytes = 1'100;

// About what this event holds: an ordinary one's bytes, and what its paths or arguments are beyond the ordinary. Asks
// for nothing that has to be looked up.
[[nodiscard]] std::uint64_t EstimateBytes(const Event& event);

}  // namespace zagent::edr
