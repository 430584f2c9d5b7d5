#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// Finds the processes of the tree that have gone without a word. A round begins every 30 minutes, and as soon as the
// tree holds 100,000 processes, but then ten seconds after the last one began at the earliest; it looks at 256
// processes a call, so that no event waits for all of them. One thread.
class ProcessTreeCleaner {
 public:
  ProcessTreeCleaner(const common::ProcessTree& tree, common::util::Clock& clock, std::string proc_root);

  // The processes found gone by the next part of a round; nothing while none is due. Who is still in the tree when the
  // next round begins is answered again.
  [[nodiscard]] std::vector<std::int32_t> Clean();
  // Nobody has heard of any end for a while: a round for those who are in the tree now is due.
  void RunSoon() { is_wanted_ = tree_.GetSize() != 0; }

 private:
  [[nodiscard]] bool IsDue() const;
  [[nodiscard]] bool HasGone(const common::ProcessInfo& process) const;
  [[nodiscard]] bool IsAnother(std::int64_t start, const common::ProcessInfo& process) const;

  const common::ProcessTree& tree_;
  common::util::Clock& clock_;
  const std::string proc_root_;
  common::util::Clock::SteadyTime last_run_;
  bool is_wanted_ = false;
  std::vector<std::int32_t> to_look_at_;       // of the round under way
  std::unordered_set<std::int32_t> answered_;  // by this round, or the last one
};

}  // namespace zagent::audit::internal
