#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::fakes {

// A rule engine that remembers what it was given.
class RecordingRuleEngine final : public edr::EventRuleEngine {
 public:
  Mailbox<std::uint32_t> processed;  // ids, in the order of the calls
  Mailbox<bool> idled;
  // Run on the calling thread before a call is remembered; may throw or block.
  std::function<void(const edr::Event&)> on_process;
  std::function<void()> on_idle;

  void AddRules(const std::string&, Rules) override {}
  void Invalidate() override {}
  void ProcessEvent(std::unique_ptr<edr::Event> event) override {
    if (on_process) on_process(*event);
    processed.Put(event->GetId());
  }
  void OnIdle() override {
    idled.Put(true);
    if (on_idle) on_idle();
  }
};

}  // namespace zagent::fakes
