#pragma once

#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/SyscallEvent.h"

namespace zagent::audit::internal {

// A process made another one (clone, fork, vfork). The actor is the new process, its parent the one that called; what
// the child runs is known by the caller's image. Threads are no processes and make no event.
class CloneEvent final : public SyscallEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  explicit CloneEvent(RecordSource& source);
  CloneEvent& operator=(const CloneEvent&) = delete;
  ~CloneEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::ProcessClone; }
  [[nodiscard]] std::string GetAction() const override { return "Clone"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return child_pid_; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return SyscallEvent::GetActorProcessId(); }
  // A clone's records tell neither: both stay empty.
  [[nodiscard]] const std::vector<std::string>& GetActorProcessArguments() const override { return arguments_; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image_ ? &*image_ : nullptr; }
  void Validate() override;

 private:
  CloneEvent(const CloneEvent&) = default;

  std::vector<std::string> arguments_;
  std::string cwd_;
  std::int32_t child_pid_ = 0;
  std::optional<common::ImageInfo> image_;
};

}  // namespace zagent::audit::internal
