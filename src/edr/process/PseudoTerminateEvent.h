#pragma once

#include <string>

#include "common/src/util/Clock.h"
#include "common/src/util/DeepPtr.h"
#include "src/edr/PartialEvent.h"
#include "src/edr/process/ImageInfo.h"
#include "src/edr/process/ProcessInfo.h"

namespace zagent::edr {

// The end of a process that audit never told of: the process model found it gone.
class PseudoTerminateEvent final : public PartialEvent {
 public:
  // Copies everything. The event's time is now.
  explicit PseudoTerminateEvent(const common::ProcessInfo& process,
                                const common::util::Clock& clock = common::util::Clock::Real());
  PseudoTerminateEvent& operator=(const PseudoTerminateEvent&) = delete;
  ~PseudoTerminateEvent() override = default;

  [[nodiscard]] std::unique_ptr<Event> Clone() const override;
  [[nodiscard]] EventType GetType() const override { return type_; }
  [[nodiscard]] std::string GetAction() const override { return "Exit"; }
  [[nodiscard]] std::uint32_t GetId() const override { return 0; }
  [[nodiscard]] ObjectType GetObjectType() const override { return object_type_; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return pid_; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return ppid_; }
  // The refusal of this question is known by the words of another one.
  [[nodiscard]] std::uint32_t GetActorEuid() const override { return GetActorAuid(); }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image_.Find(); }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return secondary_image_.Find(); }
  [[nodiscard]] bool HasSecondaryImage() const override { return secondary_image_.Find() != nullptr; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp_; }
  [[nodiscard]] bool IsElevated() const override { return IsElevatedActor(auid_, euid_); }
  void Validate() override {}
  // No rule of the kernel has seen it: empty.
  [[nodiscard]] const std::string& GetAuditKey() const override { return audit_key_; }

 private:
  PseudoTerminateEvent(const PseudoTerminateEvent&) = default;

  EventType type_ = EventType::ProcessExit;
  std::uint32_t auid_;
  std::uint32_t euid_;
  std::int32_t ppid_;
  std::int32_t pid_;
  std::uint32_t uid_;
  common::util::DeepPtr<common::ImageInfo> image_;
  common::util::DeepPtr<common::ImageInfo> secondary_image_;
  std::int64_t timestamp_;
  ObjectType object_type_ = ObjectType::Process;
  std::string audit_key_;
};

}  // namespace zagent::edr
