#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file, folder, link or node was made (mkdir, link, symlink, mknod, creat).
class CreateEvent final : public FileEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  CreateEvent(RecordSource& source, Context context);
  CreateEvent& operator=(const CreateEvent&) = delete;
  ~CreateEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Create; }
  [[nodiscard]] std::string GetAction() const override { return "Create"; }
  void Validate() override;

 private:
  CreateEvent(const CreateEvent&) = default;
};

}  // namespace zagent::audit::internal
