#include "src/edr/host/ExitFlag.h"

#include <atomic>

namespace zagent::edr::host {
namespace {

// The one global of the house: a signal handler can reach nothing else.
std::atomic<bool> exit_requested{false};  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
static_assert(std::atomic<bool>::is_always_lock_free);

}  // namespace

void RequestExit() {
  exit_requested = true;
}
bool IsExitRequested() {
  return exit_requested;
}

}  // namespace zagent::edr::host
