#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

class RenameEvent;

// A file or folder was removed, or replaced by a rename. Never looks at the disk.
class DeleteEvent final : public FileEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  DeleteEvent(RecordSource& source, Context context);
  // The file that `rename` replaced. Validated at once.
  DeleteEvent(PathRecord object, PathRecord parent, const RenameEvent& rename);
  DeleteEvent& operator=(const DeleteEvent&) = delete;
  ~DeleteEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Delete; }
  [[nodiscard]] std::string GetAction() const override { return "Delete"; }
  void Refresh() override;
  void Validate() override;

 private:
  DeleteEvent(const DeleteEvent&) = default;
};

}  // namespace zagent::audit::internal
