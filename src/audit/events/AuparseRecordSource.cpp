#include "src/audit/events/AuparseRecordSource.h"

#include <auparse.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/src/util/Log.h"
#include "src/audit/events/PlainRecord.h"
#include "src/audit/events/RecordRendering.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using edr::SetOf;

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// 0, which no event has, for a stamp that was damaged on its way: it may hold any number.
std::int64_t NanosecondsOf(std::int64_t seconds) {
  constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max() / kNanosecondsPerSecond;
  return seconds >= 0 && seconds <= kLast ? seconds * kNanosecondsPerSecond : 0;
}

std::string_view ValueAt(auparse_state_t* state, bool decoded) {
  const char* value = decoded ? auparse_interpret_field(state) : auparse_get_field_str(state);
  return value != nullptr ? value : std::string_view("");
}

// A file may really be called "(null)", which the kernel then quotes: a name that it does not know is an empty one
// here.
std::string_view NameAt(auparse_state_t* state) {
  return ValueAt(state, false) == "(null)" ? std::string_view("") : ValueAt(state, true);
}

void ReadField(auparse_state_t* state, const RecordRendering& rendering, std::string_view name,
               edr::RecordFields& fields) {
  if (rendering.arguments) {
    if (const std::optional<std::size_t> index = edr::ArgumentNamed(name)) {
      fields.SetArgument(*index, ValueAt(state, DecodesArguments(rendering)));
      return;
    }
  }
  const std::optional<RecordField> field = edr::FieldNames::Find(name);
  if (!field || (rendering.wanted & SetOf(*field)) == 0) return;
  fields.Set(*field,
             *field == RecordField::Name ? NameAt(state) : ValueAt(state, (rendering.decoded & SetOf(*field)) != 0));
}

void ReadFields(auparse_state_t* state, const RecordRendering& rendering, Record& record) {
  record.type = rendering.type;
  record.fields.Clear();
  const char* text = auparse_get_record_text(state);
  if (text != nullptr && ReadPlainRecord(text, rendering, record.fields)) return;
  record.fields.Clear();
  // An earlier walk leaves the cursor where it stopped: moving to a record does not bring it back.
  if (auparse_first_field(state) < 1) return;
  do {
    const char* name = auparse_get_field_name(state);
    if (name == nullptr || *name == '\0') continue;
    ReadField(state, rendering, name, record.fields);
  } while (!IsComplete(rendering, record.fields.Present()) && auparse_next_field(state) > 0);
}

}  // namespace

AuparseRecordSource::AuparseRecordSource(auparse_state_t* state) : state_(state) {
  if (state_ == nullptr) throw std::runtime_error("auparse state is NULL");
}

void AuparseRecordSource::Begin() {
  records_total_ = auparse_get_num_records(state_);
  if (records_total_ == 0) throw std::runtime_error("auparse state is invalid or has no records");
  if (auparse_first_record(state_) < 1) throw std::runtime_error("Failed to parse first record");
  cursor_ = 0;
  next_ = 0;
  call_at_.reset();
  is_call_given_ = false;
  first_type_ = auparse_get_type(state_);
  id_ = static_cast<std::uint32_t>(auparse_get_serial(state_));
  const au_event_t* stamp = auparse_get_timestamp(state_);
  timestamp_ = stamp != nullptr ? NanosecondsOf(stamp->sec) : 0;
}

const Record* AuparseRecordSource::FindCall() {
  for (unsigned at = 0; at < records_total_; ++at) {
    MoveTo(at);
    if (auparse_get_type(state_) != record_type::kSyscall) continue;
    ReadFields(state_, *FindRendering(record_type::kSyscall), call_);
    call_at_ = at;
    return &call_;
  }
  return nullptr;
}

int AuparseRecordSource::LastType() {
  if (auparse_goto_record_num(state_, records_total_ - 1) < 1) throw std::runtime_error("Failed to parse last record");
  cursor_ = records_total_ - 1;
  return auparse_get_type(state_);
}

std::vector<int> AuparseRecordSource::Types() {
  std::vector<int> types;
  for (unsigned at = 0; at < records_total_; ++at) {
    MoveTo(at);
    types.push_back(auparse_get_type(state_));
  }
  return types;
}

void AuparseRecordSource::SetCallNumber(std::uint32_t number) {
  call_number_ = std::to_string(number);
  call_.fields.Set(RecordField::Syscall, call_number_);
}

const Record* AuparseRecordSource::Next(RecordKinds wanted) {
  if (next_ == 0 && !is_call_given_) {
    ZLOG_DEBUG("Parsing event with ID: " << id_ << " Timestamp: " << timestamp_ / kNanosecondsPerSecond);
  }
  if (call_at_ && !is_call_given_) {
    is_call_given_ = true;
    if ((wanted & KindOf(record_type::kSyscall)) != 0 && !call_.fields.IsEmpty()) return &call_;
  }
  while (next_ < records_total_) {
    const unsigned at = next_++;
    if (call_at_ == at) continue;
    MoveTo(at);
    const int type = auparse_get_type(state_);
    if ((wanted & KindOf(type)) == 0) continue;
    ReadFields(state_, *FindRendering(type), record_);
    if (!record_.fields.IsEmpty()) return &record_;
  }
  return nullptr;
}

void AuparseRecordSource::MoveTo(unsigned record) {
  if (record < cursor_) {
    if (auparse_first_record(state_) < 1) throw std::runtime_error("Failed to parse first record");
    cursor_ = 0;
  }
  for (; cursor_ < record; ++cursor_) {
    if (auparse_next_record(state_) < 1) {
      throw std::runtime_error("Failed to parse record number " + std::to_string(cursor_ + 2));
    }
  }
}

}  // namespace zagent::audit::internal
