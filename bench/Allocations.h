#pragma once

#include <cstddef>

namespace zagent::bench {

// How often this program has asked for memory by operator new. Only programs that link Allocations.cpp count.
std::size_t CountAllocations();

}  // namespace zagent::bench
