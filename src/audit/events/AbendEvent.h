#pragma once

#include <string>

#include "src/audit/events/Event.h"

namespace zagent::audit::internal {

// A process was ended by a signal that no process sends itself in good health (the ANOM_ABEND record). It is no call:
// neither image nor parent nor key is known.
class AbendEvent final : public Event {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  explicit AbendEvent(RecordSource& source);
  AbendEvent& operator=(const AbendEvent&) = delete;
  ~AbendEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::AbnormalEnd; }
  [[nodiscard]] std::string GetAction() const override { return "Abort"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return pid_; }
  // The record knows one user id only.
  [[nodiscard]] std::uint32_t GetActorEuid() const override { return uid_; }
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return auid_; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return nullptr; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  [[nodiscard]] bool IsElevated() const override { return IsElevatedActor(auid_, uid_); }
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  AbendEvent(const AbendEvent&) = default;

  std::uint32_t auid_ = 0;
  std::int32_t pid_ = 0;
  std::uint32_t uid_ = 0;
  std::string key_;
};

}  // namespace zagent::audit::internal
