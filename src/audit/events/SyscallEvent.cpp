#include "src/audit/events/SyscallEvent.h"

#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

// The audit user id of everything that no user has logged in for.
constexpr std::uint32_t kNoLogin = 4294967295U;
constexpr const char* kSystemUser = "system-user";

}  // namespace

SyscallEvent::SyscallEvent(const SyscallEvent& other)
    : Event(other),
      auid_(other.auid_),
      euid_(other.euid_),
      ppid_(other.ppid_),
      pid_(other.pid_),
      uid_(other.uid_),
      success_(other.success_),
      image_(other.image_),
      key_(other.key_),
      arguments_(other.arguments_),
      items_(other.items_),
      syscall_(other.syscall_),
      validated_(true),
      exit_(other.exit_) {}

const std::string& SyscallEvent::GetActorUserName() const {
  if (user_name_.empty()) user_name_ = common::UserName(uid_);
  return user_name_;
}

const std::string& SyscallEvent::GetActorLoginName() const {
  if (!login_name_.empty()) return login_name_;
  if (auid_ == kNoLogin) {
    login_name_ = kSystemUser;
    ZLOG_DEBUG("Setting Audit username for Auid: " << auid_ << " to " << login_name_);
  } else {
    login_name_ = common::UserName(auid_);
  }
  return login_name_;
}

bool SyscallEvent::IsElevated() const {
  return auid_ != kNoLogin && euid_ == 0 && auid_ > euid_;
}

void SyscallEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type != record_type::kSyscall) return;
  if (record_) throw edr::EventException("Multiple syscall records found in event");
  try {
    record_.emplace(fields);
  } catch (const SyscallRecordException& error) {
    throw edr::EventException(std::string("SyscallRecordException: ") + error.what());
  }
}

void SyscallEvent::Validate() {
  Event::Validate();
  if (validated_) return;
  if (!record_) throw edr::EventException("Missing SYSCALL record for event");
  auid_ = record_->auid;
  euid_ = record_->euid;
  ppid_ = record_->ppid;
  pid_ = record_->pid;
  uid_ = record_->uid;
  success_ = record_->success;
  image_.emplace(std::move(record_->process_path));
  key_ = std::move(record_->key);
  arguments_ = std::move(record_->arguments);
  items_ = record_->items;
  syscall_ = record_->syscall;
  exit_ = record_->exit;
  validated_ = true;
  record_.reset();
}

}  // namespace zagent::audit::internal
