#pragma once

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {

// The complete event at the cursor of an auparse state. The state must be in raw escape mode and outlive the source.
class AuparseRecordSource final : public RecordSource {
 public:
  // Throws std::runtime_error "auparse state is NULL" or "auparse state is invalid or has no records".
  explicit AuparseRecordSource(auparse_state_t* state);

  // Throws std::runtime_error "Failed to parse first record" or "Failed to parse record number <n>".
  bool Next(Record& record) override;
  [[nodiscard]] std::uint32_t Id() const override { return id_; }
  [[nodiscard]] std::int64_t Timestamp() const override { return timestamp_; }

 private:
  void MoveToNextRecord();
  void ReadFields(bool interpreted, Record& record);

  auparse_state_t* state_;
  std::uint32_t records_read_ = 0;
  std::uint32_t records_total_ = 0;
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
};

}  // namespace zagent::audit::internal
