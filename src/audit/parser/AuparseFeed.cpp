#include "src/audit/parser/AuparseFeed.h"

#include <auparse.h>

#include <charconv>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

using common::util::Log;

constexpr int kEndOfEvent = 1320;
constexpr std::string_view kX86_64 = "c000003e";

long long ParseNumber(std::string_view text) {
  long long number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

// The number of the call of the record at the cursor; -1 without a readable one. Nothing, with a trace line, for a call
// of another architecture: the same numbers mean other calls there.
std::optional<long long> ReadSyscall(auparse_state_t* state) {
  if (auparse_first_field(state) < 1) return -1;
  do {
    const char* name = auparse_get_field_name(state);
    const char* value = auparse_get_field_str(state);
    if (name == nullptr || value == nullptr) continue;
    if (std::string_view(name) == "arch" && value != kX86_64) {
      ZLOG_TRACE("Ignoring event with ID: " << auparse_get_serial(state) << " arch: " << value);
      return std::nullopt;
    }
    if (std::string_view(name) == "syscall") return ParseNumber(value);
  } while (auparse_next_field(state) > 0);
  return -1;
}

}  // namespace

void AuparseFeed::Destroyer::operator()(auparse_state_t* state) const {
  auparse_destroy(state);
}

AuparseFeed::AuparseFeed(EventFactory build_events)
    : build_events_(std::move(build_events)), state_(auparse_init(AUSOURCE_FEED, nullptr)) {
  if (!state_) throw std::runtime_error("Failed to initialize auparse");
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
  try {
    static_cast<AuparseFeed*>(self)->OnCompleteEvent();
  } catch (const std::exception& error) {
    ZLOG_DEBUG("Dropping event: " << error.what());
  } catch (...) {
    ZLOG_DEBUG("Dropping event: unknown failure");
  }
}

void AuparseFeed::OnCompleteEvent() {
  if (auparse_first_record(state_.get()) < 1) {
    ZLOG_INFO("Failed to fetch first record from event");
    return;
  }
  const int type = auparse_get_type(state_.get());
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Received complete event: " + EventText());
  if (type == record_type::kSyscall) {
    BuildFromSyscall();
  } else if (type != kEndOfEvent) {
    ZLOG_TRACE("Ignoring event with ID: " << auparse_get_serial(state_.get()) << " record type: " << type);
  }
}

void AuparseFeed::BuildFromSyscall() {
  const std::optional<long long> number = ReadSyscall(state_.get());
  if (!number) return;
  const bool in_range = *number >= 0 && *number <= kLastSyscall;
  if (!in_range || !build_events_(static_cast<int>(*number), state_.get(), events_)) {
    ZLOG_TRACE("Unsupported syscall in event: " << *number);
  }
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
