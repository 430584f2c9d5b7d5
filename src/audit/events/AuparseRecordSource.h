#pragma once

#include <optional>
#include <string>
#include <vector>

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

  [[nodiscard]] int FirstType() const { return first_type_; }
  // The SYSCALL record, wherever it stands in the event; null without one. Called before the first Next: the record is
  // walked here and handed out by Next before all others, which are read with the caller in mind.
  [[nodiscard]] const Record* FindCall();

  [[nodiscard]] int LastType();
  // Of all records.
  [[nodiscard]] std::vector<int> Types();

  // From here on the call goes by this number: a 32-bit program calls by other ones. After FindCall.
  void SetCallNumber(std::uint32_t number);

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
  std::optional<unsigned> call_at_;
  bool is_call_given_ = false;
  int first_type_ = 0;
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
  Record record_;
  Record call_;
  std::string call_number_;  // a value of call_
};

}  // namespace zagent::audit::internal
