#pragma once

#include <atomic>

namespace zagent::edr::host {

// The process's wish to end: raised by SIGINT, SIGTERM, the command "exit" and a lost control link, read by the main
// loop. Lock-free, so that a signal handler may raise it.
using ExitFlag = std::atomic<bool>;
static_assert(ExitFlag::is_always_lock_free);

// The flag of this process: the one global of the house, because a signal handler can reach nothing else.
ExitFlag& ProcessExitFlag();

}  // namespace zagent::edr::host
