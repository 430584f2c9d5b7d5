#pragma once

#include <string>

#include "common/src/util/DeepPtr.h"
#include "src/audit/events/Event.h"
#include "src/audit/events/SyscallRecord.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {

// What the SYSCALL record says of every event: who did it, with which program, and whether the call succeeded.
class SyscallEvent : public Event {
 public:
  SyscallEvent& operator=(const SyscallEvent&) = delete;
  ~SyscallEvent() override = default;

  [[nodiscard]] std::uint32_t GetActorEuid() const override { return call_.euid; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return call_.pid; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return call_.ppid; }
  [[nodiscard]] const std::string& GetActorUserName() const override;
  [[nodiscard]] std::uint32_t GetActorUserId() const override { return call_.uid; }
  // "system-user" without a login session.
  [[nodiscard]] const std::string& GetActorLoginName() const override;
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return call_.auid; }
  // Only the path is known until the process model says more.
  [[nodiscard]] const common::ImageInfo* GetImage() const override;
  [[nodiscard]] const std::string& GetAuditKey() const override { return call_.key; }
  [[nodiscard]] bool IsSuccessful() const override { return call_.success; }
  [[nodiscard]] bool IsElevated() const override { return IsElevatedActor(call_.auid, call_.euid); }
  void UpdateActorProcessId(std::int32_t pid) override { call_.pid = pid; }
  // Throws edr::EventException for a second SYSCALL record or one that does not read.
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  // Throws edr::EventException "Missing SYSCALL record for event".
  void Validate() override;

 protected:
  SyscallEvent() = default;
  // A validated copy whose user and login names are looked up anew.
  SyscallEvent(const SyscallEvent& other);

  // The number of the system call (x86-64). Valid after Validate.
  [[nodiscard]] std::uint32_t Syscall() const { return call_.syscall; }
  // Throws std::out_of_range when the record had no such argument.
  [[nodiscard]] std::uint64_t Argument(std::size_t index) const;
  [[nodiscard]] bool HasArgument(std::size_t index) const { return index < call_.argument_count; }
  [[nodiscard]] std::int32_t ExitValue() const { return call_.exit; }
  // The count of PATH records that the kernel announced; 0 before the SYSCALL record.
  [[nodiscard]] std::uint64_t AnnouncedItems() const { return call_.items; }
  [[nodiscard]] const std::string& ProcessPath() const { return call_.process_path; }

 private:
  // Most events are dropped before anybody asks for these.
  struct OnDemand {
    std::string user_name;
    std::string login_name;
  };

  SyscallRecord call_;
  bool has_call_ = false;
  mutable common::util::DeepPtr<common::ImageInfo> image_;  // of the call's process path
  mutable common::util::DeepPtr<OnDemand> names_;
};

}  // namespace zagent::audit::internal
