#pragma once

#include "src/edr/Event.h"
#include "src/ioc/config/Verdict.h"

namespace zagent::ioc::internal {

// One judge of the chain that an event passes.
class Engine {
 public:
  Engine() = default;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  virtual ~Engine() = default;

  // Called by the thread of event processing alone. May throw: the event is lost then, the next one is not.
  virtual Verdict Process(const edr::Event& event) = 0;
};

}  // namespace zagent::ioc::internal
