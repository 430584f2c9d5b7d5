#include "src/edr/process/PseudoRunningEvent.h"

#include <stdexcept>

#include "src/edr/process/NameService.h"

namespace zagent::edr {

PseudoRunningEvent::PseudoRunningEvent(const common::ProcessInfo& process)
    : auid_(process.GetAuid()),
      euid_(process.GetEuid()),
      ppid_(process.GetParent()),
      pid_(process.GetPid()),
      uid_(process.GetUserId()),
      arguments_(process.GetArguments()),
      cwd_(process.GetCwd()),
      timestamp_(process.GetCreationTime()) {
  if (const common::ImageInfo* image = process.GetImage()) image_.Get(*image);
  if (process.HasSecondaryImage()) secondary_image_.Get(*process.GetSecondaryImage());
}

std::unique_ptr<Event> PseudoRunningEvent::Clone() const {
  return std::unique_ptr<Event>(new PseudoRunningEvent(*this));
}

const std::string& PseudoRunningEvent::GetActorUserName() const {
  if (user_name_.empty()) user_name_ = common::UserName(uid_);
  return user_name_;
}

const std::string& PseudoRunningEvent::GetActorLoginName() const {
  if (login_name_.empty()) login_name_ = common::UserName(auid_);
  return login_name_;
}

// Known by other words than the same refusal of an audit event.
const std::string& PseudoRunningEvent::GetCommandLine() const {
  throw std::runtime_error("GetCommandLine is not implemented");
}

}  // namespace zagent::edr
