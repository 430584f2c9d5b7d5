#include "src/audit/routing/ProcessTreeCleaner.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;

constexpr auto kInterval = 1800s;
constexpr auto kIntervalOfAFullTree = 10s;
constexpr std::size_t kFullTree = 100'000;
constexpr std::size_t kPortion = 256;
// Two times of one process differ by less: they may come from an event, in whole seconds.
constexpr std::int64_t kTolerance = 2'000'000'000;

}  // namespace

ProcessTreeCleaner::ProcessTreeCleaner(const common::ProcessTree& tree, common::util::Clock& clock,
                                       std::string proc_root)
    : tree_(tree), clock_(clock), proc_root_(std::move(proc_root)), last_run_(clock.SteadyNow()) {}

bool ProcessTreeCleaner::IsDue() const {
  if (is_wanted_) return true;
  const auto passed = clock_.SteadyNow() - last_run_;
  return passed >= kInterval || (tree_.GetSize() >= kFullTree && passed >= kIntervalOfAFullTree);
}

std::vector<std::int32_t> ProcessTreeCleaner::Clean() {
  std::vector<std::int32_t> gone;
  if (to_look_at_.empty()) {
    if (!IsDue()) return gone;
    is_wanted_ = false;
    last_run_ = clock_.SteadyNow();
    for (const std::int32_t pid : std::exchange(answered_, {})) {
      if (tree_.Contains(pid) && answered_.insert(pid).second) gone.push_back(pid);
    }
    ZLOG_DEBUG("Cleaning process tree for terminated processes"
               << ": size " << tree_.GetSize());
    to_look_at_ = tree_.GetPids();
  }
  for (std::size_t looks = 0; looks < kPortion && !to_look_at_.empty(); ++looks) {
    const std::int32_t pid = to_look_at_.back();
    to_look_at_.pop_back();
    if (!tree_.Contains(pid) || !HasGone(tree_.Get(pid))) continue;
    if (answered_.insert(pid).second) gone.push_back(pid);
  }
  return gone;
}

bool ProcessTreeCleaner::HasGone(const common::ProcessInfo& process) const {
  const std::int32_t pid = process.GetPid();
  const auto start = common::util::ReadStartSinceBoot(pid, proc_root_);
  if (!start) {
    ZLOG_DEBUG("ProcessID: " << pid << " exited. ");
    return true;
  }
  if (!IsAnother(*start, process)) return false;
  ZLOG_DEBUG("ProcessID: " << pid << " creation time from processInfo differs with Proc creation time");
  return true;
}

// procfs tells when the kernel made a process, which is compared with what it told when the process entered the tree.
// Where nothing was told then, there is only the time of the event that it is known by.
bool ProcessTreeCleaner::IsAnother(std::int64_t start, const common::ProcessInfo& process) const {
  if (const auto known = process.GetStartSinceBoot()) return std::abs(start - *known) >= kTolerance;
  try {
    return common::util::StartSinceEpoch(start, proc_root_) - process.GetCreationTime() >= kTolerance;
  } catch (const std::runtime_error& error) {
    ZLOG_DEBUG(error.what());
    return false;
  }
}

}  // namespace zagent::audit::internal
