#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace zagent::tools {

// A document of events of files as a spool file makes one, of at least `size` bytes and less than an event more. Its
// names, numbers and digests differ from event to event, so that it compresses like real ones.
std::vector<unsigned char> MakeSpoolDocument(std::size_t size, std::mt19937_64& random);

}  // namespace zagent::tools
