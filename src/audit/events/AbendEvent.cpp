#include "src/audit/events/AbendEvent.h"

#include <charconv>
#include <string_view>

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

// 0 for what is no number.
template <typename Number>
void Read(const edr::RecordFields& fields, RecordField field, Number& number) {
  const std::string_view text = fields.Find(field);
  std::from_chars(text.data(), text.data() + text.size(), number);
}

}  // namespace

AbendEvent::AbendEvent(RecordSource& source) {
  Feed(source, KindOf(record_type::kAnomAbend));
}

std::unique_ptr<edr::Event> AbendEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new AbendEvent(*this));
}

void AbendEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type != record_type::kAnomAbend) return;
  Read(fields, RecordField::Auid, auid_);
  Read(fields, RecordField::Pid, pid_);
  Read(fields, RecordField::Uid, uid_);
}

void AbendEvent::Validate() {
  Event::Validate();
  if (pid_ == 0) throw edr::EventException("Processid missing in Abend event");
}

}  // namespace zagent::audit::internal
