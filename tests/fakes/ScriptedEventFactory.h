#pragma once

#include <auparse.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/parser/EventFactory.h"
#include "tests/fakes/FakeEvent.h"

namespace zagent::fakes {

// Makes a FakeEvent with the serial and time of each audit event, whatever it is about, and remembers what it was
// asked. Used by one thread at a time.
struct ScriptedEventFactory {
  std::vector<int> syscalls;           // asked for, in their order
  std::set<int> unknown;               // answered with false
  std::function<void(int)> interfere;  // runs before an event is made; may throw

  [[nodiscard]] audit::internal::EventFactory Get() {
    return [this](int syscall, auparse_state_t* state, audit::internal::Events& events) {
      syscalls.push_back(syscall);
      if (unknown.count(syscall) != 0) return false;
      if (interfere) interfere(syscall);
      auto event = std::make_unique<FakeEvent>();
      event->id = static_cast<std::uint32_t>(auparse_get_serial(state));
      event->timestamp = static_cast<std::int64_t>(auparse_get_time(state)) * 1'000'000'000;
      events.push_back(std::move(event));
      return true;
    };
  }
};

}  // namespace zagent::fakes
