#pragma once

#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/Event.h"
#include "src/audit/events/SyscallRecord.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {

// What the SYSCALL record says of every event: who did it, with which program, and whether the call succeeded.
class SyscallEvent : public Event {
 public:
  SyscallEvent& operator=(const SyscallEvent&) = delete;
  ~SyscallEvent() override = default;

  [[nodiscard]] std::uint32_t GetActorEuid() const override { return euid_; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return pid_; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return ppid_; }
  [[nodiscard]] const std::string& GetActorUserName() const override;
  [[nodiscard]] std::uint32_t GetActorUserId() const override { return uid_; }
  // "system-user" without a login session.
  [[nodiscard]] const std::string& GetActorLoginName() const override;
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return auid_; }
  // Only the path is known until the process model says more.
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image_ ? &*image_ : nullptr; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  [[nodiscard]] bool IsSuccessful() const override { return success_; }
  [[nodiscard]] bool IsElevated() const override;
  void UpdateActorProcessId(std::int32_t pid) override { pid_ = pid; }
  // Throws edr::EventException for a second SYSCALL record or one that does not read.
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  // Throws edr::EventException "Missing SYSCALL record for event".
  void Validate() override;

 protected:
  SyscallEvent() = default;
  // A validated copy whose user and login names are looked up anew.
  SyscallEvent(const SyscallEvent& other);

  // The number of the system call (x86-64). Valid after Validate.
  [[nodiscard]] std::uint32_t Syscall() const { return syscall_; }
  // Throws std::out_of_range when the record had no such argument.
  [[nodiscard]] std::uint64_t Argument(std::size_t index) const { return arguments_.at(index); }
  [[nodiscard]] bool HasArgument(std::size_t index) const { return index < arguments_.size(); }
  [[nodiscard]] std::int32_t ExitValue() const { return exit_; }
  // The count of PATH records that the kernel announced; 0 before the SYSCALL record.
  [[nodiscard]] std::uint64_t AnnouncedItems() const { return record_ ? record_->items : items_; }

 private:
  std::uint32_t auid_ = 0;
  std::uint32_t euid_ = 0;
  std::int32_t ppid_ = 0;
  std::int32_t pid_ = 0;
  std::uint32_t uid_ = 0;
  mutable std::string user_name_;   // on demand
  mutable std::string login_name_;  // on demand
  bool success_ = true;
  std::optional<common::ImageInfo> image_;
  std::string key_;
  std::vector<std::uint64_t> arguments_;
  std::uint64_t items_ = 0;
  std::uint32_t syscall_ = 0;
  std::optional<SyscallRecord> record_;  // until Validate
  bool validated_ = false;
  std::int32_t exit_ = 0;
};

}  // namespace zagent::audit::internal
