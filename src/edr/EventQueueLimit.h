#pragma once

#include <cstdint>

namespace zagent::edr {

// How many events a queue between two threads holds: 10,000 to 100,000, by `allowed_memory_kb`, the memory limit's
// share of the total memory.
std::uint64_t EventQueueLimit(std::uint64_t allowed_memory_kb);

}  // namespace zagent::edr
