#include "src/edr/process/PseudoTerminateEvent.h"

namespace zagent::edr {

PseudoTerminateEvent::PseudoTerminateEvent(const common::ProcessInfo& process, const common::util::Clock& clock)
    : auid_(process.GetAuid()),
      euid_(process.GetEuid()),
      ppid_(process.GetParent()),
      pid_(process.GetPid()),
      uid_(process.GetUserId()),
      timestamp_(common::util::ToNanoseconds(clock.Now())) {
  if (const common::ImageInfo* image = process.GetImage()) image_.Get(*image);
  if (process.HasSecondaryImage()) secondary_image_.Get(*process.GetSecondaryImage());
}

std::unique_ptr<Event> PseudoTerminateEvent::Clone() const {
  return std::unique_ptr<Event>(new PseudoTerminateEvent(*this));
}

}  // namespace zagent::edr
