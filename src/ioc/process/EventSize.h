#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::ioc::internal {

// About how much of the heap an event holds that was made by new: itself, the images it answers with and their texts,
// in bytes. What it looks up later when it is asked is not counted.
[[nodiscard]] std::size_t EstimateHeap(const edr::Event& event);

// The same of what these have beside themselves.
[[nodiscard]] std::size_t HeapOf(const std::string& text);
[[nodiscard]] std::size_t HeapOf(const std::vector<std::string>& texts);
[[nodiscard]] std::size_t HeapOf(const common::ImageInfo& image);

}  // namespace zagent::ioc::internal
