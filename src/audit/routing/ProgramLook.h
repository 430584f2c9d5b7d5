#pragma once

#include <string>

#include "src/edr/Event.h"

namespace zagent::audit::internal {

// Whether the event's process runs, under the very name that GetImage has, another file than the one that has this name
// here: it lives in a mount namespace or a chroot of its own. A program that was removed after its start, and another
// one perhaps put in its place, is believed where it may have been the one of this name; from a mount of its own it
// cannot. False for everything that proves nothing: a process that is gone, one that runs another program by now, and
// one whose program cannot be looked at.
[[nodiscard]] bool IsImageProvedAnotherFile(const edr::Event& event, const std::string& proc_root = "/proc");

}  // namespace zagent::audit::internal
