#include "src/audit/events/AuparseRecordReader.h"

#include <auparse.h>

#include <bit>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

auparse_state_t* InitAuparse() {
  auparse_state_t* state = auparse_init(AUSOURCE_FEED, nullptr);
  if (state == nullptr) throw AuparseFailure("Failed to initialize auparse");
  return state;
}

}  // namespace

void AuparseRecordReader::Destroyer::operator()(auparse_state_t* state) const {
  auparse_destroy(state);
}

AuparseRecordReader::AuparseRecordReader() : state_(InitAuparse()), source_(state_.get()) {
  auparse_add_callback(
      state_.get(),
      [](auparse_state_t* state, auparse_cb_event_t kind, void* self) { OnAuparseEvent(state, kind, self); }, this,
      nullptr);
  auparse_set_escape_mode(state_.get(), AUPARSE_ESC_RAW);
}

AuparseRecordReader::~AuparseRecordReader() = default;

// A flush makes auparse tell at once what it was fed; nothing is left in it then.
void AuparseRecordReader::Read(std::string_view line, Record& record, ValueStore& values) {
  record.fields.Clear();
  record_ = &record;
  values_ = &values;
  fed_.assign(line).append("\n");
  if (auparse_feed(state_.get(), fed_.data(), fed_.size()) < 0) throw AuparseFailure("Failed to feed to auparse");
  auparse_flush_feed(state_.get());
  record_ = nullptr;
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

// Called from within C code: nothing may be thrown through it.
void AuparseRecordReader::OnAuparseEvent(auparse_state_t* state, int kind, void* self) noexcept {
  if (kind != AUPARSE_CB_EVENT_READY) return;
  auto& reader = *static_cast<AuparseRecordReader*>(self);
  if (reader.record_ == nullptr) return;
  try {
    reader.Keep(state);
  } catch (...) {
    reader.failure_ = std::current_exception();
  }
}

// What auparse tells belongs to it, and goes with the event.
void AuparseRecordReader::Keep(auparse_state_t* state) {
  if (auparse_first_record(state) < 1) {
    ZLOG_INFO("Failed to fetch first record from event");
    throw std::runtime_error("no record");
  }
  source_.Begin();
  const Record* told = source_.Next(KindOf(record_->type));
  if (told == nullptr) return;
  for (edr::RecordFieldSet left = told->fields.Present(); left != 0; left &= left - 1) {
    const auto field = static_cast<edr::RecordField>(std::countr_zero(left));
    record_->fields.Set(field, values_->Keep(told->fields.At(field)));
  }
  for (std::size_t at = 0; at < told->fields.ArgumentCount(); ++at) {
    if (const auto argument = told->fields.Argument(at)) record_->fields.SetArgument(at, values_->Keep(*argument));
  }
}

}  // namespace zagent::audit::internal
