#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// Permissions, owner, times or extended attributes were changed. GetFile is the object before the call, GetNewFile
// after it: the same object with the permission, owner and group found on disk, by Validate and again by each Refresh.
class AttributeEvent final : public FileEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  AttributeEvent(RecordSource& source, Context context);
  AttributeEvent& operator=(const AttributeEvent&) = delete;
  ~AttributeEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::AttributeChange; }
  [[nodiscard]] std::string GetAction() const override { return "Change"; }
  [[nodiscard]] const common::ImageInfo* GetNewFile() const override { return new_file_ ? &*new_file_ : nullptr; }
  void Refresh() override;
  void UpdateFilePath(const std::string& path) override;
  void Validate() override;

 private:
  AttributeEvent(const AttributeEvent&) = default;

  [[nodiscard]] common::ImageInfo AsOnDisk() const;
  [[nodiscard]] common::ImageInfo AsTheCallSaid() const;

  std::optional<common::ImageInfo> new_file_;
};

}  // namespace zagent::audit::internal
