#pragma once

#include <cstdint>

#include "src/audit/events/RecordSource.h"

// libauparse's opaque parser, as its own header names it.
struct opaque;
using auparse_state_t = opaque;

namespace zagent::audit::internal {

// The complete audit event at the cursor of an auparse state, which must be in raw escape mode and outlive the source.
// One source serves one event after another; each record is walked once, and only its wanted fields are decoded. What
// it hands out belongs to auparse and is valid until the state goes on.
class AuparseRecordSource final : public RecordSource {
 public:
  // Throws std::runtime_error "auparse state is NULL".
  explicit AuparseRecordSource(auparse_state_t* state);

  // Goes to the start of the event at the cursor. Throws std::runtime_error "auparse state is invalid or has no
  // records" or "Failed to parse first record".
  void Begin();

  // Throws std::runtime_error "Failed to parse record number <n>".
  const Record* Next(RecordKinds wanted) override;
  [[nodiscard]] std::uint32_t Id() const override { return id_; }
  [[nodiscard]] std::int64_t Timestamp() const override { return timestamp_; }

 private:
  void MoveTo(unsigned record);

  auparse_state_t* state_;
  unsigned records_total_ = 0;
  unsigned cursor_ = 0;  // the record at which auparse stands
  unsigned next_ = 0;    // the record that Next looks at
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
  Record record_;
};

}  // namespace zagent::audit::internal
