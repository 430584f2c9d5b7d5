#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "src/audit/events/RecordSource.h"
#include "src/edr/Event.h"
#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit::internal {

using Events = std::vector<std::unique_ptr<edr::Event>>;

// Highest system call number that is looked at: execveat (322) and what came later never become events.
inline constexpr int kLastSyscall = 316;

// Builds what the complete audit event at auparse's cursor means, given the x86-64 number of its system call (0 to
// kLastSyscall), and appends it to `events`. False when the number means nothing to the program. Throws
// edr::EventException and other std::exceptions when the records do not make an event; `events` is unchanged then.
using EventFactory = std::function<bool(int syscall, auparse_state_t* state, Events& events)>;

// The factory of the program's own event classes.
EventFactory MakeEventFactory(std::shared_ptr<edr::LibMagicWrapper> lib_magic);

}  // namespace zagent::audit::internal
