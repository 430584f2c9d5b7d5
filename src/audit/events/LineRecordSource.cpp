#include "src/audit/events/LineRecordSource.h"

#include <algorithm>

#include "common/src/util/Log.h"
#include "src/audit/events/EventTime.h"
#include "src/audit/events/PlainRecord.h"
#include "src/audit/events/RecordRendering.h"

namespace zagent::audit::internal {

void LineRecordSource::Begin(std::span<const RecordLine> lines) {
  values_.Forget();
  lines_ = lines;
  next_ = 0;
  call_at_ = nullptr;
  is_call_given_ = false;
  const EventStamp stamp = ReadStamp(lines.front().stamp).value_or(EventStamp());
  id_ = static_cast<std::uint32_t>(stamp.serial);
  timestamp_ = NanosecondsOf(stamp.seconds);
}

const Record* LineRecordSource::FindCall() {
  const auto call = std::find_if(lines_.begin(), lines_.end(),
                                 [](const RecordLine& line) { return line.type == record_type::kSyscall; });
  if (call == lines_.end()) return nullptr;
  call_at_ = &*call;
  Read(*call, call_);
  return &call_;
}

void LineRecordSource::SetCallNumber(std::uint32_t number) {
  call_number_ = std::to_string(number);
  call_.fields.Set(edr::RecordField::Syscall, call_number_);
}

const Record* LineRecordSource::Next(RecordKinds wanted) {
  if (next_ == 0 && !is_call_given_) {
    ZLOG_DEBUG("Parsing event with ID: " << id_ << " Timestamp: " << SecondsOf(timestamp_));
  }
  if (call_at_ != nullptr && !is_call_given_) {
    is_call_given_ = true;
    if ((wanted & KindOf(record_type::kSyscall)) != 0 && !call_.fields.IsEmpty()) return &call_;
  }
  while (next_ < lines_.size()) {
    const RecordLine& line = lines_[next_++];
    if (&line == call_at_ || (wanted & KindOf(line.type)) == 0) continue;
    Read(line, record_);
    if (!record_.fields.IsEmpty()) return &record_;
  }
  return nullptr;
}

void LineRecordSource::Read(const RecordLine& line, Record& record) {
  record.type = line.type;
  record.fields.Clear();
  const bool is_plain = ReadPlainRecord(line.body, *FindRendering(line.type), values_, record.fields);
  if (is_plain) return;
  if (line.type == record_type::kProctitle) {
    // Of a command line that no kernel writes libauparse writes beyond the end.
    record.fields.Clear();
  } else {
    auparse_.Read(line.text, record, values_);
  }
}

}  // namespace zagent::audit::internal
