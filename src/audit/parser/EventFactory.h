#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "src/audit/events/FileContext.h"
#include "src/audit/events/RecordSource.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

using Events = std::vector<std::unique_ptr<edr::Event>>;

// Highest system call number that is looked at without extended coverage: execveat (322) and what came later never
// become events then.
inline constexpr int kLastSyscall = 316;

// What an audit event is about: the kernel type of the record that tells it and, when that is a SYSCALL record, the
// x86-64 number of the call and how many PATH records the kernel announced.
struct EventSubject {
  int record_type = 0;
  int syscall = -1;
  std::uint64_t items = 0;
};

enum class BuildResult {
  Built,
  Unsupported,  // the subject means nothing to the program
  Dropped,      // the records make no event; a debug line has told why
  Unplaced,     // as Dropped, for lack of a path that can be trusted
};

// Builds what the audit event at the source means and appends it to `events`. Throws edr::EventException and other
// std::exceptions when the records are unsound. `events` is unchanged unless the result is Built.
using EventFactory = std::function<BuildResult(const EventSubject& subject, RecordSource& source, Events& events)>;

// The factory of the program's own event classes. Where coverage is extended (FileContext) it knows more calls.
EventFactory MakeEventFactory(FileContext context);

}  // namespace zagent::audit::internal
