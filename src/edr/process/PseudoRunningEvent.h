#pragma once

#include <string>
#include <vector>

#include "common/src/util/DeepPtr.h"
#include "src/edr/PartialEvent.h"
#include "src/edr/process/ImageInfo.h"
#include "src/edr/process/ProcessInfo.h"

namespace zagent::edr {

// The start of a process that audit never told of: it was running before the program, or its start was missed. The
// process model makes one up, so that every process that it knows has a start.
class PseudoRunningEvent final : public PartialEvent {
 public:
  // Copies everything: the process may go at once. The event's time is the process's creation time.
  explicit PseudoRunningEvent(const common::ProcessInfo& process);
  PseudoRunningEvent& operator=(const PseudoRunningEvent&) = delete;
  ~PseudoRunningEvent() override = default;

  [[nodiscard]] std::unique_ptr<Event> Clone() const override;
  [[nodiscard]] EventType GetType() const override { return EventType::ProcessStart; }
  [[nodiscard]] std::string GetAction() const override { return "Execve"; }
  [[nodiscard]] std::uint32_t GetId() const override { return 0; }
  [[nodiscard]] ObjectType GetObjectType() const override { return ObjectType::Process; }
  [[nodiscard]] std::uint32_t GetActorEuid() const override { return euid_; }
  [[nodiscard]] const std::vector<std::string>& GetActorProcessArguments() const override { return arguments_; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return pid_; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return ppid_; }
  [[nodiscard]] const std::string& GetActorUserName() const override;
  [[nodiscard]] std::uint32_t GetActorUserId() const override { return uid_; }
  // Looked up like any id: no login session has no word of its own here.
  [[nodiscard]] const std::string& GetActorLoginName() const override;
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return auid_; }
  [[nodiscard]] const std::string& GetCommandLine() const override;
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image_.Find(); }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return secondary_image_.Find(); }
  [[nodiscard]] bool HasSecondaryImage() const override { return secondary_image_.Find() != nullptr; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp_; }
  [[nodiscard]] bool IsElevated() const override { return IsElevatedActor(auid_, euid_); }
  // The process is known by its process id already.
  void UpdateActorProcessId(std::int32_t /*pid*/) override {}
  void Validate() override {}
  // No rule of the kernel has seen it: empty.
  [[nodiscard]] const std::string& GetAuditKey() const override { return audit_key_; }

 private:
  PseudoRunningEvent(const PseudoRunningEvent&) = default;

  std::uint32_t auid_;
  std::uint32_t euid_;
  std::int32_t ppid_;
  std::int32_t pid_;
  std::uint32_t uid_;
  mutable std::string user_name_;   // on demand
  mutable std::string login_name_;  // on demand
  std::vector<std::string> arguments_;
  std::string cwd_;
  common::util::DeepPtr<common::ImageInfo> image_;
  common::util::DeepPtr<common::ImageInfo> secondary_image_;
  std::int64_t timestamp_;
  std::string audit_key_;
};

}  // namespace zagent::edr
