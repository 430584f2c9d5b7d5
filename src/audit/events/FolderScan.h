#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/events/FolderWalk.h"

namespace zagent::audit::internal {

// Fills FolderIdentities from the disk in the background when other folders are watched, on a thread of its own that
// takes at most a twentieth of a processor. Rules are in force meanwhile; what the records tell first stands.
//
// Started and stopped by its owner; Watch may come from any thread, before the start too.
class FolderScan {
 public:
  using CpuTime = std::function<std::chrono::nanoseconds()>;

  // `cpu_time` answers what the calling thread has used of a processor.
  FolderScan(FolderIdentities& identities, MountTable& mounts, common::util::Clock& clock = common::util::Clock::Real(),
             CpuTime cpu_time = OfThisThread);
  FolderScan(const FolderScan&) = delete;
  FolderScan& operator=(const FolderScan&) = delete;
  ~FolderScan() { Stop(); }

  // A thread that cannot be had is told as an error: identities are learned from the records alone then.
  void Start();
  // Waits for the thread, which looks at a few hundred entries at most before it ends.
  void Stop();

  // What is watched from now on. Returns at once.
  void Watch(std::vector<WatchedFolder> folders);

  // Records were lost, and what is known may be out of date: it is forgotten and looked for anew. Returns at once.
  void StartAgain();

  static std::chrono::nanoseconds OfThisThread();

 private:
  void Run();
  // False when the thread shall end.
  bool AwaitWanted();
  void TakeWanted();
  void Fill();
  // Waits until what was used since the fill began is the allowed share of the time since then.
  void Rest(common::util::Clock::SteadyTime begin, std::chrono::nanoseconds used);

  FolderIdentities& identities_;
  FolderWalk walk_;  // the thread's
  common::util::Clock& clock_;
  const CpuTime cpu_time_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  bool is_outdated_ = false;
  std::optional<std::vector<WatchedFolder>> wanted_;  // until the thread takes it; the newest replaces the older
  std::thread thread_;
};

}  // namespace zagent::audit::internal
