#pragma once

#include <functional>
#include <memory>

#include "common/src/util/Clock.h"
#include "src/audit/events/FileEventCache.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// The way of one event from the pipeline to the components: file events rest in the cache until the file has settled
// and are looked up on disk again when they leave it; everything else goes on at once. What goes wrong with one event
// is logged and ends that event only.
//
// Belongs to the event-processing thread.
class EventRouter {
 public:
  // False for what the program's own family did.
  using ShouldProcess = std::function<bool(const edr::Event& event)>;
  // Calls the components.
  using Deliver = std::function<void(const edr::Event& event)>;

  EventRouter(common::util::Clock& clock, ShouldProcess should_process, Deliver deliver);

  // Takes an event in, after what has become due. The event is not null.
  void Process(std::unique_ptr<edr::Event> event);
  void DeliverExpired();

 private:
  enum class Source { Pipeline, FileCache };

  void Handle(std::unique_ptr<edr::Event> event, Source source);
  void Dispatch(std::unique_ptr<edr::Event> event, Source source);

  ShouldProcess should_process_;
  Deliver deliver_;
  FileEventCache file_events_;
};

}  // namespace zagent::audit::internal
