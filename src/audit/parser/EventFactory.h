#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "src/audit/events/FileContext.h"
#include "src/audit/events/RecordSource.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

using Events = std::vector<std::unique_ptr<edr::Event>>;

// Highest system call number that is looked at: execveat (322) and what came later never become events.
inline constexpr int kLastSyscall = 316;

// What an audit event is about: the kernel type of the record that tells it and, when that is a SYSCALL record, the
// x86-64 number of the call.
struct EventSubject {
  int record_type = 0;
  int syscall = -1;
};

// Builds what the audit event at the source means and appends it to `events`. False when the subject means nothing to
// the program. Throws edr::EventException and other std::exceptions when the records do not make an event; `events` is
// unchanged then.
using EventFactory = std::function<bool(const EventSubject& subject, RecordSource& source, Events& events)>;

// The factory of the program's own event classes.
EventFactory MakeEventFactory(FileContext context);

}  // namespace zagent::audit::internal
