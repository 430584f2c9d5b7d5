#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>

#include "common/src/util/Clock.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/routing/FileEventCache.h"
#include "src/audit/routing/ProcessModel.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// The way of one event from the pipeline to the components: the process model sees to it that its actor is known, file
// events rest in the cache until the file has settled and are looked up on disk again when they leave it; everything
// else goes on at once. What goes wrong with one event is logged, counted and ends that event only.
//
// No call but DeliverRest takes longer than a few events take; the end of a process takes its resting events with it.
// Belongs to the event-processing thread, but for GetRestingBytes.
class EventRouter final : private ProcessModel::Road {
 public:
  struct Stops {
    // Whether anybody wants to know of processes; without, the process model is passed by.
    std::function<bool()> has_process_rules;
    // False for what the program's own family did. Asked when an event comes in, and again when it has rested: the
    // parent agent may have become known meanwhile. Hears of the ends of unknown processes, too.
    std::function<bool(const edr::Event& event, EventSource source)> should_process;
    // The event under another path at which it concerns rules that its own path does not lead to; null when there is
    // none. Asked once, when the event comes in: later the way there may be gone.
    std::function<std::unique_ptr<edr::Event>(const edr::Event& event)> find_twin;
    // Calls the components. With a twin, which is null otherwise, the rules of the event's own path hear of the event,
    // and the others that the twin concerns of that.
    std::function<void(const edr::Event& event, const edr::Event* twin)> deliver;
    // The same for an event that has rested and has no twin: nobody needs it any more. Where this is empty, `deliver`
    // is called.
    std::function<void(std::unique_ptr<edr::Event> event)> hand_over{};
  };

  // At most `max_resting` events rest; beyond it the oldest are due early.
  EventRouter(common::util::Clock& clock, std::size_t max_resting, IntakeCounters& counters, ProcessModel& processes,
              Stops stops);

  // Takes an event in, after one that has become due, and looks for processes that are gone. The event is not null, and
  // stays with the caller when it goes no further.
  void Process(std::unique_ptr<edr::Event>&& event);
  // For when no event comes: delivers the oldest event that is due, if there is one, and looks for processes that are
  // gone. True when another event is due.
  bool OnIdle();
  // Delivers what rests, due or not, oldest first, until `time` has passed. What then remains is dropped, with one line
  // that counts it.
  void DeliverRest(std::chrono::nanoseconds time);
  // What the events that rest hold, by an estimate. From any thread.
  [[nodiscard]] std::uint64_t GetRestingBytes() const { return file_events_.GetBytes(); }

 private:
  void PassOn(std::unique_ptr<edr::Event>&& event, EventSource source) override;
  void PassOver(const edr::Event& event) override;
  void FlushFileEvents(std::int32_t pid) override;

  void Handle(std::unique_ptr<edr::Event>&& event, EventSource source);
  bool DeliverDue();
  void DeliverCached(std::unique_ptr<edr::Event> event);
  std::unique_ptr<edr::Event> TakeTwin(const edr::Event* event);
  void CleanProcesses();
  bool WantsProcesses();

  common::util::Clock& clock_;
  IntakeCounters& counters_;
  ProcessModel& processes_;
  const Stops stops_;
  bool wanted_processes_ = false;
  FileEventCache file_events_;
  std::unordered_map<const edr::Event*, std::unique_ptr<edr::Event>> twins_;  // of events in file_events_
};

}  // namespace zagent::audit::internal
