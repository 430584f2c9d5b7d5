#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "src/audit/events/AuparseRecordReader.h"
#include "src/audit/events/RecordLine.h"
#include "src/audit/events/RecordSource.h"
#include "src/audit/events/ValueStore.h"

namespace zagent::audit::internal {

// The audit event that some lines make. One source serves one event after another; each record is read once, and only
// its wanted fields: from the text where it is plain, by auparse where not. What it hands out is valid until the next
// Begin at most, and the lines must be there as long.
class LineRecordSource final : public RecordSource {
 public:
  // Throws AuparseFailure "Failed to initialize auparse".
  LineRecordSource() = default;

  // Goes to the start of an event of one line at least.
  void Begin(std::span<const RecordLine> lines);

  [[nodiscard]] std::span<const RecordLine> Lines() const { return lines_; }
  // The SYSCALL record, wherever it stands in the event; null without one. Called before the first Next: the record is
  // read here and handed out by Next before all others, which are read with the caller in mind. Throws as Next does.
  [[nodiscard]] const Record* FindCall();
  // From here on the call goes by this number: a 32-bit program calls by other ones. After FindCall.
  void SetCallNumber(std::uint32_t number);

  // Throws what AuparseRecordReader::Read throws.
  const Record* Next(RecordKinds wanted) override;
  [[nodiscard]] std::uint32_t Id() const override { return id_; }
  [[nodiscard]] std::int64_t Timestamp() const override { return timestamp_; }

 private:
  void Read(const RecordLine& line, Record& record);

  AuparseRecordReader auparse_;
  ValueStore values_;
  std::span<const RecordLine> lines_;
  std::size_t next_ = 0;                 // the line that Next looks at
  const RecordLine* call_at_ = nullptr;  // the line of call_
  bool is_call_given_ = false;
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
  Record record_;
  Record call_;
  std::string call_number_;  // a value of call_
};

}  // namespace zagent::audit::internal
