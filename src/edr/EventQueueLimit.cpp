#include "src/edr/EventQueueLimit.h"

namespace zagent::edr {

std::uint64_t EventQueueLimit(std::uint64_t allowed_memory_kb) {
  const std::uint64_t share = 30 * allowed_memory_kb;
  if (share <= 999'999) return 10'000;
  if (share <= 10'000'099) return share / 100;
  return 100'000;
}

}  // namespace zagent::edr
