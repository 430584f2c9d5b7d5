#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file, folder, link or node was made (mkdir, link, symlink, mknod, creat).
class CreateEvent final : public FileEvent {
 public:
  // The complete event at the cursor of the state. Throws when the event cannot be built.
  CreateEvent(auparse_state_t* state, std::shared_ptr<edr::LibMagicWrapper> lib_magic);
  CreateEvent(RecordSource& source, std::shared_ptr<edr::LibMagicWrapper> lib_magic);
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
