#pragma once

#include <cstdint>

#include "src/edr/Event.h"

namespace zagent::ioc::internal {

// Whether the actor's program is no larger than `max_size` bytes. Without a limit (0) nobody looks; a program that
// cannot be looked at has no size that would do.
[[nodiscard]] bool HasProgramSizeToProcess(const edr::Event& event, std::int64_t max_size);

}  // namespace zagent::ioc::internal
