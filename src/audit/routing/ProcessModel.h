#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/routing/CloneCache.h"
#include "src/audit/routing/EventSource.h"
#include "src/audit/routing/ProcessTreeCleaner.h"
#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// Who did it: keeps the tree of live processes, and makes sure that the actor of an event stands in it before the event
// goes on. The tree is empty at the start and fills with what happens; a process that was there before, or whose start
// was missed, gets a start made up, one for each of its ancestors that is missing too.
//
// An actor that the tree does not have is looked for in procfs, in the event itself, and among the latest clones, in
// this order. procfs counts only for a process that was there when the event happened: a pid may be another's by now.
//
// Belongs to the event-processing thread, apart from Invalidate.
class ProcessModel {
 public:
  // Where the events go on.
  class Road {
   public:
    Road() = default;
    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;
    virtual ~Road() = default;

    // The next stop of an event whose actor is known as well as can be. Takes it over if it is to rest there.
    virtual void PassOn(std::unique_ptr<edr::Event>&& event, EventSource source) = 0;
    // An event that goes no further.
    virtual void PassOver(const edr::Event& event) = 0;
    // The process ends: its file events that still rest are delivered now. Throws nothing.
    virtual void FlushFileEvents(std::int32_t pid) = 0;
  };
  // Whether a process was started by a container runtime. Asked when the process stands in the tree, below its
  // ancestors.
  using IsContainer = std::function<bool(const edr::Event& event)>;

  ProcessModel(common::util::Clock& clock, IntakeCounters& counters, IsContainer is_container,
               std::string proc_root = "/proc");

  [[nodiscard]] const common::ProcessTree& Tree() const { return tree_; }

  // Takes an event in and lets it go on by `road`, after the starts that it needed. Clones go no further, and neither
  // does the end of a process that nobody knows. Throws what `road` throws at this event.
  void Handle(std::unique_ptr<edr::Event>&& event, EventSource source, Road& road);

  // Reports the processes that have gone without a word, when it is time to look for them.
  void Clean(Road& road);

  // Events went past the model for a while. Ends of processes did: it is time to look for them; and the clones tell of
  // children whose pids may be others' by now.
  void Resume() {
    cleaner_.RunSoon();
    clones_.Clear();
  }

  // Any thread: events have been lost. The clones are forgotten before the next event; the tree stays.
  void Invalidate() { invalidated_ = true; }

 private:
  using Starts = std::vector<std::unique_ptr<edr::Event>>;

  void HandleEnd(std::unique_ptr<edr::Event>&& event, EventSource source, Road& road);
  // A pid that came again before anybody heard of the end of the process that had it: reports that end.
  void EndPredecessor(const edr::Event& start_or_clone, Road& road);
  void EnsureActor(edr::Event& event, Road& road);
  // The start of the event's actor; null when the tree has it, or when nothing is known of it. May answer with another
  // process id than the event's, which is then one of a thread.
  [[nodiscard]] std::unique_ptr<edr::Event> FindMissingActor(const edr::Event& event);
  [[nodiscard]] std::unique_ptr<edr::Event> StartFromProcFs(std::int32_t pid, const edr::Event& event) const;
  [[nodiscard]] std::unique_ptr<edr::Event> StartFromEvent(std::int32_t pid, const edr::Event& event) const;
  [[nodiscard]] std::unique_ptr<edr::Event> StartFromClone(std::int32_t pid);
  // The starts of a process and of its ancestors that are missing too, the process itself first.
  [[nodiscard]] Starts WithMissingAncestors(std::unique_ptr<edr::Event> start);
  void Enter(edr::Event& start);
  // When the kernel made the process of the event; nothing when procfs has none or another one.
  [[nodiscard]] std::optional<std::int64_t> FindStartSinceBoot(std::int32_t pid, const edr::Event& event);
  // In seconds since the epoch. Throws as ReadBootTime does.
  std::int64_t GetBootTime();
  void ConsumeInvalidation();

  common::util::Clock& clock_;
  IntakeCounters& counters_;
  const IsContainer is_container_;
  const std::string proc_root_;
  common::ProcessTree tree_;
  CloneCache clones_;
  ProcessTreeCleaner cleaner_;
  std::int64_t boot_time_ = 0;
  common::util::Clock::SteadyTime boot_time_known_until_{};
  std::atomic<bool> invalidated_ = false;
};

}  // namespace zagent::audit::internal
