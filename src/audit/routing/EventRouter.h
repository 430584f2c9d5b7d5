#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "common/src/util/Clock.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/routing/FileEventCache.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// The way of one event from the pipeline to the components: file events rest in the cache until the file has settled
// and are looked up on disk again when they leave it; everything else goes on at once. What goes wrong with one event
// is logged, counted and ends that event only.
//
// No call but DeliverRest takes longer than two events take. Belongs to the event-processing thread.
class EventRouter {
 public:
  // False for what the program's own family did.
  using ShouldProcess = std::function<bool(const edr::Event& event)>;
  // Calls the components.
  using Deliver = std::function<void(const edr::Event& event)>;

  // At most `max_resting` events rest; beyond it the oldest are due early.
  EventRouter(common::util::Clock& clock, std::size_t max_resting, IntakeCounters& counters,
              ShouldProcess should_process, Deliver deliver);

  // Takes an event in, after one that has become due. The event is not null.
  void Process(std::unique_ptr<edr::Event> event);
  // Delivers the oldest event that is due, if there is one. True when another one is due.
  bool DeliverDue();
  // Delivers what rests, due or not, oldest first, until `time` has passed. What then remains is dropped, with one line
  // that counts it.
  void DeliverRest(std::chrono::nanoseconds time);

 private:
  enum class Source { Pipeline, FileCache };

  void Handle(std::unique_ptr<edr::Event> event, Source source);
  void DeliverCached(std::unique_ptr<edr::Event> event);
  void Dispatch(std::unique_ptr<edr::Event> event, Source source);

  common::util::Clock& clock_;
  IntakeCounters& counters_;
  ShouldProcess should_process_;
  Deliver deliver_;
  FileEventCache file_events_;
};

}  // namespace zagent::audit::internal
