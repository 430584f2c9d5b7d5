#include "src/ioc/engines/HeuristicsEngine.h"

#include <memory>
#include <stdexcept>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"

namespace zagent::ioc::internal {

HeuristicsEngine::HeuristicsEngine(TtlProcessTree& tree, std::uint64_t max_count, bool enabled,
                                   const common::util::Clock& clock)
    : tree_(tree), clock_(clock) {
  Configure(max_count, enabled);
}

void HeuristicsEngine::Configure(std::uint64_t max_count, bool enabled) {
  if (max_count == 0) throw std::invalid_argument("maxCount cannot be set to 0 on the heuristics engine");
  const std::lock_guard lock(mutex_);
  max_count_ = max_count;
  if (!enabled) {
    cache_.reset();
  } else if (!cache_) {
    cache_.emplace(kMaxKinds);
  }
}

Verdict HeuristicsEngine::Process(const edr::Event& event) {
  const std::lock_guard lock(mutex_);
  if (!cache_) return Verdict::Unknown;
  const Verdict verdict = Count(*cache_, key_.Of(event, tree_));
  KeepTag(*tree_.Get(event.GetActorProcessId()), verdict);
  return verdict;
}

Verdict HeuristicsEngine::Count(Cache& cache, const std::string& key) const {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  HeuristicsVerdict* const kind = cache.Find(key);
  if (kind == nullptr) {
    cache.Put(key, {1, now});
  } else if (now - kind->first_seen > kWindow) {
    *kind = {1, now};
  } else if (kind->count >= max_count_) {
    return Verdict::Clean;
  } else {
    ++kind->count;
  }
  return Verdict::Unknown;
}

void HeuristicsEngine::KeepTag(ProcessInfo& process, Verdict verdict) {
  static const std::string kTag = process_tag::kHeuristicsVerdict;
  const std::optional<std::string> known = process.FindTag(kTag);
  const std::string& word = VerdictWord(verdict);
  if (known ? *known == word : verdict == Verdict::Clean) return;
  ZLOG_INFO("Adding heuristics verdict '" << word << "' to process " << process.GetPid() << " ("
                                          << process.GetImage()->GetPath() << ")");
  process.AddTag(kTag, word);
}

}  // namespace zagent::ioc::internal
