#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "src/edr/LRUCache.h"
#include "src/ioc/engines/Engine.h"
#include "src/ioc/engines/HeuristicsKey.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// How often events of one kind have passed since the first of them.
struct HeuristicsVerdict {
  std::uint64_t count = 1;
  common::util::Clock::SteadyTime first_seen;
};

// Damps repetitions: of a kind of event (HeuristicsKey) a few pass in 24 hours, the rest is to be dropped. The word of
// its verdict stays with the process as the tag "HeuristicsVerdict", from the first event on that passes.
//
// Bound: it counts kMaxKinds kinds; a new one takes the place of the one that was seen the longest ago, which begins
// anew when it comes again.
class HeuristicsEngine final : public Engine {
 public:
  static constexpr std::size_t kMaxKinds = 10'000;
  static constexpr std::chrono::hours kWindow{24};

  // `tree` and `clock` outlive the engine. Throws as Configure does.
  HeuristicsEngine(TtlProcessTree& tree, std::uint64_t max_count, bool enabled,
                   const common::util::Clock& clock = common::util::Clock::Real());

  // So many events of a kind pass. Whoever is disabled forgets what it has counted; one that stays enabled does not.
  // Any thread. Throws std::invalid_argument "maxCount cannot be set to 0 on the heuristics engine" and changes
  // nothing.
  void Configure(std::uint64_t max_count, bool enabled);

  // Clean: to be dropped. Unknown: worth a look, as everything is to a disabled engine, which sets no tag either.
  // Throws what the tree throws for a process that it does not know.
  Verdict Process(const edr::Event& event) override;

 private:
  using Cache = edr::LRUCache<std::string, HeuristicsVerdict>;

  [[nodiscard]] Verdict Count(Cache& cache, const std::string& key) const;
  static void KeepTag(ProcessInfo& process, Verdict verdict);

  TtlProcessTree& tree_;
  const common::util::Clock& clock_;
  std::mutex mutex_;
  std::uint64_t max_count_ = 1;
  std::optional<Cache> cache_;  // while it is enabled
  HeuristicsKey key_;
};

}  // namespace zagent::ioc::internal
