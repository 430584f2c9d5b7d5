#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Clock.h"
#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"
#include "src/ioc/process/EventHeap.h"
#include "src/ioc/process/LiveProcesses.h"
#include "src/ioc/process/ProcessInfo.h"
#include "src/ioc/process/SnapshotDBTtlProcess.h"

namespace zagent::ioc {

class TtlProcessTreeException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The memory of processes: who they are, what hangs below whom, and the events that wait for a verdict. A process stays
// until it has both ended and lived for its time (the ttl after its start), and then until its last event was taken. No
// event waits longer than the ttl.
// What it knows of running processes outlives a restart in the table "TtlProcesses" of the snapshot database.
//
// Whoever judges asks GetExpiredEvents for what is due after every event and in quiet moments, and tells
// DeleteStaleProcesses and EndUntold about once a second.
//
// All processes hang below process 1, which is made from procfs when the first process comes. Parents that were never
// told of are looked up in procfs while they live; whose parent is gone hangs under process 1. Who starts another
// program stays in his place with his children and the events that wait, but without tags and score.
//
// Bounds: 100,000 processes, 256 MiB of what is known of them (their arguments above all) and 512 MiB of events, by an
// estimate of their heap. Beyond them GetExpiredEvents hands out the events of the oldest processes early, and forgets
// as many of those as are too many at its next call, when their events have been judged; later events of theirs are
// refused like those of any unknown process. One warning a minute tells the numbers.
//
// One thread changes the tree. Get, Has, IsPidReused, FindParent, GetChildren, GetSiblings, GetAncestors,
// GetSize, GetCachedBytes and GetEntryBytes may be called from any thread; the mutex is held for the look into the map
// alone.
class TtlProcessTree {
 public:
  struct Bounds {
    std::size_t processes = 100'000;
    std::size_t bytes = std::size_t{512} * 1024 * 1024;        // of events
    std::size_t entry_bytes = std::size_t{256} * 1024 * 1024;  // of what is known of processes
  };

  // `snapshot` outlives the tree; with null nothing is loaded or saved. Takes up the processes of the table that are
  // still running, reports an end for those that are not, and empties the table. After a reboot, which is known by the
  // start of process 1, the tree is empty. Throws std::runtime_error "Error reading TtlProcesses table while cleaning
  // up: <code>" when the table cannot be read.
  TtlProcessTree(common::SqlStorage* snapshot, std::chrono::seconds ttl, common::util::Clock& clock,
                 const std::string& proc_root = "/proc");
  TtlProcessTree(common::SqlStorage* snapshot, std::chrono::seconds ttl, common::util::Clock& clock,
                 const std::string& proc_root, Bounds bounds);
  TtlProcessTree(const TtlProcessTree&) = delete;
  TtlProcessTree& operator=(const TtlProcessTree&) = delete;
  // Saves the processes; events that wait are lost.
  ~TtlProcessTree();

  // A process start enters or replaces its process. A start that was made up for a process which is known already (the
  // same start, the same program) joins its events, and so does every other event. Throws TtlProcessTreeException
  // "Event id: <id> cannot be added as actor process information is not available" for a process that is not known,
  // common::GenericProcessTreeException "Ppid: <ppid> does not exist for process: <pid>" when there is nobody to hang a
  // new one under.
  void AddEvent(std::unique_ptr<edr::Event> event);

  // Throws common::GenericProcessTreeException "ProcessInfo for pid <pid> does not exist".
  [[nodiscard]] std::shared_ptr<ProcessInfo> Get(std::int32_t pid) const;
  [[nodiscard]] bool Has(std::int32_t pid) const;
  // The event starts a process under the pid of one that has ended.
  [[nodiscard]] bool IsPidReused(const edr::Event& event) const;
  // The parent that a process event names, while it is known. Null as well when its pid belongs to a process that has
  // started since: the event may have waited.
  [[nodiscard]] std::shared_ptr<ProcessInfo> FindParent(const edr::Event& event) const;

  // Take out the waiting events of the process and of its children, or of everything below it. Throw as Get does.
  [[nodiscard]] internal::EventHeap GetEventsFromCache(std::int32_t pid);
  [[nodiscard]] internal::EventHeap GetDescendantEvents(std::int32_t pid);
  // Takes out what is due: the events of processes whose time is over, or was over when the first of these events came
  // and has passed once more, of those with too many, of those that have ended after their time, and what is too much
  // at the bounds.
  [[nodiscard]] internal::EventHeap GetExpiredEvents();

  // The pid belongs to another process from now on: what lives below it goes under process 1. Throws as Get does.
  void ExpireProcess(std::int32_t pid);
  // Forgets who has ended and lived for its time, in a time that does not grow with those who have ended alone: it is
  // called for each pid that comes again. Throws common::GenericProcessTreeException "Child process with PID: <child>
  // not found while deleting for Process PID: <pid>" after it has deleted that process.
  void DeleteStaleProcesses();
  // Looks whether some of the processes that were there before this run are still there.
  void EndUntold();

  // Throw as Get does. Process 1 has no siblings.
  [[nodiscard]] std::vector<std::shared_ptr<ProcessInfo>> GetChildren(std::int32_t pid) const;
  [[nodiscard]] std::vector<std::shared_ptr<ProcessInfo>> GetSiblings(std::int32_t pid) const;
  // Image paths by pid, of the process itself and of all above it; empty for one that is not known. Throws
  // std::invalid_argument for a pid below 1.
  [[nodiscard]] std::map<std::int32_t, std::string> GetAncestors(std::int32_t pid) const;

  // Puts the entry in the place of the one with its pid, whose links it takes over. Throws TtlProcessTreeException
  // "Failed to update process info: ...".
  void Update(const std::shared_ptr<ProcessInfo>& process);

  [[nodiscard]] std::size_t GetSize() const;
  // Heap of all waiting events, in bytes, by estimate.
  [[nodiscard]] std::size_t GetCachedBytes() const { return usage_->events; }
  // Heap of what is known of processes, likewise.
  [[nodiscard]] std::size_t GetEntryBytes() const { return usage_->entries; }

 private:
  using Pointer = std::shared_ptr<ProcessInfo>;

  // With or without mutex_ held by the thread that changes the tree:
  [[nodiscard]] Pointer Find(std::int32_t pid) const;

  void Load();
  bool Restore(const internal::models::SnapshotDBTtlProcess& saved, std::int32_t parent);
  void Save();
  [[nodiscard]] std::vector<internal::models::SnapshotDBTtlProcess> RowsToSave();
  [[nodiscard]] std::int64_t StartToSave(const ProcessInfo& process);

  void AddStart(std::unique_ptr<edr::Event> event, const Pointer& old);
  void AddTo(ProcessInfo& process, std::unique_ptr<edr::Event> event);
  void FollowToInit(ProcessInfo& process, const edr::Event& event);
  void MoveUnderInit(ProcessInfo& process);
  [[nodiscard]] bool IsTheSame(const ProcessInfo& known, const edr::Event& start);
  // Of a process of an earlier run, or of procfs, that nobody has spoken of since.
  [[nodiscard]] bool HasJustLeft(const ProcessInfo& known, const edr::Event& start) const;

  void EnsureInit(std::int32_t pid, std::int32_t ppid);
  [[nodiscard]] std::int32_t EnsureParent(std::int32_t pid, std::int32_t ppid, std::int64_t time);
  [[nodiscard]] bool IsBelow(std::int32_t pid, std::int32_t ancestor) const;
  void Enter(const Pointer& process, std::int32_t parent);
  [[nodiscard]] bool IsAnother(const ProcessInfo& process, std::int32_t parent, const ProcessInfo& old) const;
  void Replace(const Pointer& process, std::int32_t parent, ProcessInfo& old, bool is_another);
  [[nodiscard]] std::uint64_t SerialOf(std::int32_t pid) const;
  void Remember(const Pointer& process);
  void Delete(std::int32_t pid);
  void MarkEnded(ProcessInfo& process);
  void MarkExpired(ProcessInfo& process);

  void Take(ProcessInfo& process, internal::EventHeap& heap);
  void TakeChildren(const ProcessInfo& process, internal::EventHeap& heap);
  void ExpireDue();
  void DropJudged(internal::EventHeap& heap);
  void EnforceBounds();
  void ForgetOldest(std::size_t count, std::size_t bytes);
  void Forget(std::uint64_t age, std::int32_t pid);
  void JudgeOldest(std::size_t bytes);
  void WarnOnceAMinute();
  [[nodiscard]] bool IsStillThere(const ProcessInfo& process) const;

  common::SqlStorage* const snapshot_;
  const std::chrono::seconds ttl_;
  common::util::Clock& clock_;
  const Bounds bounds_;
  internal::LiveProcesses live_;
  const ProcessInfo::OnCacheFull on_cache_full_;

  mutable std::mutex mutex_;
  common::GenericProcessTree<ProcessInfo, Pointer> processes_;  // with the links of all processes
  const std::shared_ptr<ProcessInfo::Usage> usage_ = std::make_shared<ProcessInfo::Usage>();

  // For the thread that changes the tree:
  using TtlQueue = std::deque<std::pair<std::int32_t, common::util::Clock::SteadyTime>>;
  TtlQueue ttl_queue_;
  // Processes whose time is over, with the first event that came after that.
  TtlQueue late_queue_;
  std::unordered_set<std::int32_t> late_;         // who is in it
  std::deque<std::int32_t> terminated_;           // and perhaps some that are forgotten by now
  std::deque<std::int32_t> stale_;                // those that have lived for their time, too
  std::set<std::int32_t> expired_pids_;           // whose events are due
  std::unordered_set<std::int32_t> with_events_;  // and perhaps some that have none any more
  std::map<std::uint64_t, std::int32_t> by_age_;  // the oldest entry first
  std::unordered_map<std::int32_t, std::uint64_t> ages_;
  std::uint64_t next_age_ = 0;
  std::uint64_t last_serial_ = 0;
  // Nobody has told of their start in this run, so nobody may tell of their end.
  struct Untold {
    bool is_reported = false;  // whether an end is to be reported
    // When it was first seen to be gone: what it did last may still be on its way.
    std::optional<common::util::Clock::SteadyTime> gone_since = std::nullopt;
  };
  std::map<std::int32_t, Untold> untold_;
  std::int32_t last_checked_ = 0;
  std::map<std::uint64_t, std::int32_t> judged_;  // to be forgotten at the bound, by age
  std::size_t judged_bytes_ = 0;                  // of what is known of them
  std::optional<common::util::Clock::SteadyTime> warned_;
  std::size_t forgotten_ = 0;     // at the bound since the last warning
  std::size_t judged_early_ = 0;  // likewise
};

}  // namespace zagent::ioc
