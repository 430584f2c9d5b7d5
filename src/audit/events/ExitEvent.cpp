#include "src/audit/events/ExitEvent.h"

namespace zagent::audit::internal {
namespace {

constexpr std::uint32_t kExitGroup = 231;

}  // namespace

ExitEvent::ExitEvent(RecordSource& source) {
  Feed(source, KindOf(record_type::kSyscall));
}

std::unique_ptr<edr::Event> ExitEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new ExitEvent(*this));
}

void ExitEvent::Validate() {
  SyscallEvent::Validate();
  if (Syscall() != kExitGroup) {
    throw edr::EventException("Invalid syscall for Exit event: " + std::to_string(Syscall()));
  }
}

}  // namespace zagent::audit::internal
