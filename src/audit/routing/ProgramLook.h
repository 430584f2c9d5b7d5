#pragma once

#include <string>

#include "src/edr/Event.h"

namespace zagent::audit::internal {

// Whether the event's process runs, under the very name that GetImage has, another file than the one that has this name
// here: it lives in a mount namespace or a chroot of its own. False for everything that proves nothing: a process that
// is gone, one that runs another program by now, and one whose program cannot be looked at.
[[nodiscard]] bool IsImageProvedAnotherFile(const edr::Event& event, const std::string& proc_root = "/proc");

}  // namespace zagent::audit::internal
