#pragma once

#include <cstdint>
#include <memory>

#include "src/edr/Event.h"
#include "src/edr/LRUCache.h"

namespace zagent::audit::internal {

// The latest clones by the id of the child, so that a process that is only a fork can be found after it has gone,
// without a look at every fork. Holds 40; a new one takes the place of the oldest. One thread.
class CloneCache {
 public:
  // Takes a clone event; an older one of the same child makes way.
  void Add(std::unique_ptr<edr::Event> clone);
  // Takes the clone of the child out; null when there is none.
  [[nodiscard]] std::unique_ptr<edr::Event> Take(std::int32_t pid);
  void Erase(std::int32_t pid) { clones_.Erase(pid); }
  void Clear() { clones_.Clear(); }

 private:
  static constexpr std::size_t kCapacity = 40;

  edr::LRUCache<std::int32_t, std::unique_ptr<edr::Event>> clones_{kCapacity};
};

}  // namespace zagent::audit::internal
