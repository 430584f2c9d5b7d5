#include "src/audit/parser/AuparseFeed.h"

#include <auparse.h>

#include <charconv>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

using common::util::Log;

constexpr std::string_view kX86_64 = "c000003e";

long long ParseNumber(std::string_view text) {
  long long number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

auparse_state_t* InitAuparse() {
  auparse_state_t* state = auparse_init(AUSOURCE_FEED, nullptr);
  if (state == nullptr) throw std::runtime_error("Failed to initialize auparse");
  return state;
}

}  // namespace

void AuparseFeed::Destroyer::operator()(auparse_state_t* state) const {
  auparse_destroy(state);
}

AuparseFeed::AuparseFeed(EventFactory build_events, IntakeCounters& counters)
    : build_events_(std::move(build_events)), counters_(counters), state_(InitAuparse()), source_(state_.get()) {
  auparse_add_callback(
      state_.get(),
      [](auparse_state_t* state, auparse_cb_event_t kind, void* self) { OnAuparseEvent(state, kind, self); }, this,
      nullptr);
  auparse_set_escape_mode(state_.get(), AUPARSE_ESC_RAW);
}

AuparseFeed::~AuparseFeed() = default;

void AuparseFeed::Feed(const unsigned char* data, std::size_t size) {
  if (auparse_feed(state_.get(), reinterpret_cast<const char*>(data), size) < 0) {
    throw std::runtime_error("Failed to feed to auparse");
  }
}

void AuparseFeed::Flush() {
  auparse_flush_feed(state_.get());
}

Events AuparseFeed::TakeEvents() {
  return std::exchange(events_, {});
}

// Called from within C code: nothing may be thrown through it.
void AuparseFeed::OnAuparseEvent(auparse_state_t* /*state*/, int kind, void* self) noexcept {
  if (kind != AUPARSE_CB_EVENT_READY) return;
  auto& feed = *static_cast<AuparseFeed*>(self);
  try {
    feed.OnCompleteEvent();
  } catch (const std::exception& error) {
    feed.counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: " << error.what());
  } catch (...) {
    feed.counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: unknown failure");
  }
}

void AuparseFeed::OnCompleteEvent() {
  if (auparse_first_record(state_.get()) < 1) {
    ZLOG_INFO("Failed to fetch first record from event");
    return;
  }
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Received complete event: " + EventText());
  source_.Begin();
  const int type = source_.FirstType();
  // A process that ends abnormally within a call has both records.
  if (type == record_type::kAnomAbend && Build({type})) return;
  if (type == record_type::kEndOfEvent) return;
  if (const Record* call = source_.FindCall()) {
    BuildFromCall(*call);
  } else {
    ZLOG_TRACE("Ignoring event with ID: " << source_.Id() << " record type: " << type);
  }
}

void AuparseFeed::BuildFromCall(const Record& call) {
  const std::string_view arch = call.fields.Find(edr::RecordField::Arch);
  // The same numbers mean other calls on another architecture.
  if (!arch.empty() && arch != kX86_64) {
    counters_.Add(IntakeCounters::Reason::UnsupportedCall);
    ZLOG_TRACE("Ignoring event with ID: " << source_.Id() << " arch: " << arch);
    return;
  }
  const long long number = ParseNumber(call.fields.Find(edr::RecordField::Syscall));
  const bool in_range = number >= 0 && number <= kLastSyscall;
  if (in_range && Build({call.type, static_cast<int>(number)})) return;
  counters_.Add(IntakeCounters::Reason::UnsupportedCall);
  ZLOG_TRACE("Unsupported syscall in event: " << number);
}

bool AuparseFeed::Build(const EventSubject& subject) {
  const BuildResult result = build_events_(subject, source_, events_);
  if (result == BuildResult::Dropped) counters_.Add(IntakeCounters::Reason::NotBuilt);
  return result != BuildResult::Unsupported;
}

// Every record on a line of its own. Leaves the cursor at the first record.
std::string AuparseFeed::EventText() const {
  std::string text;
  do {
    const char* record = auparse_get_record_text(state_.get());
    if (record != nullptr) text.append(record).append("\n");
  } while (auparse_next_record(state_.get()) > 0);
  auparse_first_record(state_.get());
  return text;
}

}  // namespace zagent::audit::internal
