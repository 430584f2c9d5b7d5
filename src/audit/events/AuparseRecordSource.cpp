#include "src/audit/events/AuparseRecordSource.h"

#include <auparse.h>

#include <stdexcept>
#include <string>
#include <string_view>

#include "common/src/util/Log.h"
#include "src/audit/events/EventTime.h"
#include "src/audit/events/RecordRendering.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using edr::SetOf;

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
  id_ = static_cast<std::uint32_t>(auparse_get_serial(state_));
  const au_event_t* stamp = auparse_get_timestamp(state_);
  timestamp_ = stamp != nullptr ? NanosecondsOf(static_cast<std::uint64_t>(stamp->sec)) : 0;
}

const Record* AuparseRecordSource::Next(RecordKinds wanted) {
  while (next_ < records_total_) {
    MoveTo(next_++);
    const int type = auparse_get_type(state_);
    if ((wanted & KindOf(type)) == 0) continue;
    ReadFields(state_, *FindRendering(type), record_);
    if (!record_.fields.IsEmpty()) return &record_;
  }
  return nullptr;
}

void AuparseRecordSource::MoveTo(unsigned record) {
  for (; cursor_ < record; ++cursor_) {
    if (auparse_next_record(state_) < 1) {
      throw std::runtime_error("Failed to parse record number " + std::to_string(cursor_ + 2));
    }
  }
}

}  // namespace zagent::audit::internal
