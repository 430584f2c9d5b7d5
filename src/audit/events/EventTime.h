#pragma once

#include <cstdint>
#include <limits>

namespace zagent::audit::internal {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// The time of an event whose stamp has these seconds since the epoch. 0, which no event has, for a stamp that was
// damaged on its way: it may hold any number.
constexpr std::int64_t NanosecondsOf(std::uint64_t seconds) {
  constexpr std::uint64_t kLast = std::numeric_limits<std::int64_t>::max() / kNanosecondsPerSecond;
  return seconds <= kLast ? static_cast<std::int64_t>(seconds) * kNanosecondsPerSecond : 0;
}

constexpr std::int64_t SecondsOf(std::int64_t nanoseconds) {
  return nanoseconds / kNanosecondsPerSecond;
}

}  // namespace zagent::audit::internal
