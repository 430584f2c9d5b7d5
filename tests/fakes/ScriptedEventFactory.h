#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/parser/EventFactory.h"
#include "tests/fakes/FakeEvent.h"

namespace zagent::fakes {

// Makes a FakeEvent with the serial and time of each audit event of a call, whatever it is about, and remembers what it
// was asked. Used by one thread at a time.
struct ScriptedEventFactory {
  std::vector<int> syscalls;                          // asked for, in their order
  std::set<int> unknown;                              // answered as unsupported
  std::vector<audit::internal::BuildResult> results;  // of the next events, which are not built
  bool builds_abends = false;
  std::function<void(int)> interfere;  // runs before an event is made; may throw

  [[nodiscard]] audit::internal::EventFactory Get() {
    using Result = audit::internal::BuildResult;
    return [this](const audit::internal::EventSubject& subject, audit::internal::RecordSource& source,
                  audit::internal::Events& events) {
      if (subject.record_type == audit::internal::record_type::kConfigChange) return Result::Unsupported;
      if (subject.record_type == audit::internal::record_type::kAnomAbend) {
        if (!builds_abends) return Result::Unsupported;
      } else {
        syscalls.push_back(subject.syscall);
      }
      if (unknown.count(subject.syscall) != 0) return Result::Unsupported;
      if (interfere) interfere(subject.syscall);
      if (!results.empty()) {
        const Result result = results.front();
        results.erase(results.begin());
        return result;
      }
      auto event = std::make_unique<FakeEvent>();
      event->id = source.Id();
      event->timestamp = source.Timestamp();
      events.push_back(std::move(event));
      return Result::Built;
    };
  }
};

}  // namespace zagent::fakes
