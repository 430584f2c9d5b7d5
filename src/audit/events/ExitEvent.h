#pragma once

#include "src/audit/events/SyscallEvent.h"

namespace zagent::audit::internal {

// A process ended (exit_group).
class ExitEvent final : public SyscallEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  explicit ExitEvent(RecordSource& source);
  ExitEvent& operator=(const ExitEvent&) = delete;
  ~ExitEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::ProcessExit; }
  [[nodiscard]] std::string GetAction() const override { return "Exit"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  void Validate() override;

 private:
  ExitEvent(const ExitEvent&) = default;
};

}  // namespace zagent::audit::internal
