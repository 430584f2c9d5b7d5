#pragma once

#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file was opened for reading or writing, read or written: Read, Write, or Create when the call made the file.
class ReadWriteEvent final : public FileEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  ReadWriteEvent(RecordSource& source, Context context);
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
