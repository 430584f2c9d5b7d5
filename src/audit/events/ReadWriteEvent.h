#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file was opened for reading or writing, read or written: Read, Write, or Create when the call made the file.
class ReadWriteEvent final : public FileEvent {
 public:
  // The complete event at the cursor of the state. Throws when the event cannot be built.
  ReadWriteEvent(auparse_state_t* state, std::shared_ptr<edr::LibMagicWrapper> lib_magic);
  ReadWriteEvent(RecordSource& source, std::shared_ptr<edr::LibMagicWrapper> lib_magic);
  ReadWriteEvent& operator=(const ReadWriteEvent&) = delete;
  ~ReadWriteEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return type_; }
  [[nodiscard]] std::string GetAction() const override;
  // Truncation is no event: its calls are refused here.
  void Validate() override;

 private:
  ReadWriteEvent(const ReadWriteEvent&) = default;

  edr::EventType type_ = edr::EventType::Write;
};

}  // namespace zagent::audit::internal
