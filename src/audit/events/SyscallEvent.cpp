#include "src/audit/events/SyscallEvent.h"

#include <stdexcept>

#include "common/src/util/Log.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

constexpr const char* kSystemUser = "system-user";

}  // namespace

SyscallEvent::SyscallEvent(const SyscallEvent& other) : Event(other), call_(other.call_), has_call_(true) {}

const std::string& SyscallEvent::GetActorUserName() const {
  std::string& name = names_.Get().user_name;
  if (name.empty()) name = common::UserName(call_.uid);
  return name;
}

const std::string& SyscallEvent::GetActorLoginName() const {
  std::string& name = names_.Get().login_name;
  if (!name.empty()) return name;
  if (call_.auid == kNoLogin) {
    name = kSystemUser;
    ZLOG_DEBUG("Setting Audit username for Auid: " << call_.auid << " to " << name);
  } else {
    name = common::UserName(call_.auid);
  }
  return name;
}

const common::ImageInfo* SyscallEvent::GetImage() const {
  return &image_.Get(call_.process_path);
}

std::uint64_t SyscallEvent::Argument(std::size_t index) const {
  if (!HasArgument(index)) throw std::out_of_range("no argument a" + std::to_string(index));
  return call_.arguments.at(index);
}

void SyscallEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type != record_type::kSyscall) return;
  if (has_call_) throw edr::EventException("Multiple syscall records found in event");
  try {
    call_ = SyscallRecord(fields);
    has_call_ = true;
  } catch (const SyscallRecordException& error) {
    throw edr::EventException(std::string("SyscallRecordException: ") + error.what());
  }
}

void SyscallEvent::Validate() {
  Event::Validate();
  if (!has_call_) throw edr::EventException("Missing SYSCALL record for event");
}

}  // namespace zagent::audit::internal
