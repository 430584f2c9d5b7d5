#pragma once

#include <cstdint>

namespace zagent::audit::internal {

// Where an event comes from on its way to the components: from the pipeline, or from its rest in the file event cache.
enum class EventSource : std::uint8_t { Pipeline, FileCache };

}  // namespace zagent::audit::internal
