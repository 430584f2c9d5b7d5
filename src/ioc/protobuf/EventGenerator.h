#pragma once

#include "src/edr/Event.h"

namespace zagent::ioc::internal {

// Where an event that is to be reported goes. Called by the thread of event processing alone.
class EventGenerator {
 public:
  EventGenerator() = default;
  EventGenerator(const EventGenerator&) = delete;
  EventGenerator& operator=(const EventGenerator&) = delete;
  virtual ~EventGenerator() = default;

  // Reports the event. `send_metadata` is what the manifests say of metadata. Throws a std::runtime_error that says why
  // an event cannot be reported: it is lost, the next one is not.
  virtual void Process(const edr::Event& event, bool send_metadata) = 0;
  // All events of before the next call have happened by now.
  virtual void BeginTurn() {}
  // Called about once a second, with or without events.
  virtual void KeepHouse() {}
};

}  // namespace zagent::ioc::internal
