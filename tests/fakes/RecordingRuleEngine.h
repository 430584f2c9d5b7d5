#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::fakes {

// A rule engine that remembers what it was given.
class RecordingRuleEngine final : public edr::EventRuleEngine {
 public:
  Mailbox<std::uint32_t> processed;  // ids, in the order of the calls
  Mailbox<bool> idled;
  Mailbox<std::chrono::nanoseconds> stopped;  // the time that OnStop was given
  // Run on the calling thread before a call is remembered; may throw or block.
  std::function<void(const edr::Event&)> on_process;
  std::function<bool(const edr::Event&)> keep;  // answers whether the event is taken over
  std::function<bool()> on_idle;                // answers whether more is due
  std::function<void()> on_stop;

  void AddRules(const std::string&, Rules) override {}
  void Invalidate() override {}
  void ProcessEvent(std::unique_ptr<edr::Event>&& event) override {
    if (on_process) on_process(*event);
    const std::uint32_t id = event->GetId();
    if (keep && keep(*event)) kept_.push_back(std::move(event));
    processed.Put(id);
  }
  bool OnIdle() override {
    idled.Put(true);
    return on_idle && on_idle();
  }
  void OnStop(std::chrono::nanoseconds time) override {
    if (on_stop) on_stop();
    stopped.Put(time);
  }

 private:
  std::vector<std::unique_ptr<edr::Event>> kept_;
};

}  // namespace zagent::fakes
