#pragma once

#include <cstddef>

#include "src/edr/Event.h"

namespace zagent::ioc::internal {

// About how much of the heap an event holds that was made by new: itself, the images it answers with and their texts,
// in bytes. What it looks up later when it is asked is not counted.
[[nodiscard]] std::size_t EstimateHeap(const edr::Event& event);

}  // namespace zagent::ioc::internal
