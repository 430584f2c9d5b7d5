#include "src/audit/parser/AuparseFeed.h"

#include <auparse.h>

#include <algorithm>
#include <charconv>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "common/src/util/Log.h"
#include "src/audit/events/CompatCalls.h"

namespace zagent::audit::internal {
namespace {

using common::util::Log;

constexpr std::string_view kX86_64 = "c000003e";
constexpr std::string_view kI386 = "40000003";

long long ParseNumber(std::string_view text) {
  long long number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

std::uint64_t ParseHex(std::string_view text) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return number;
}

// Every call has announced its paths; an address it has not.
bool LacksAddress(const Record& call, const std::vector<int>& types) {
  constexpr long long kConnect = 42;
  constexpr long long kBind = 49;
  const long long number = ParseNumber(call.fields.Find(edr::RecordField::Syscall));
  return (number == kConnect || number == kBind) &&
         std::find(types.begin(), types.end(), record_type::kSockaddr) == types.end();
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
    : build_events_(std::move(build_events)), counters_(counters), cut_events_(counters) {
  for (Parser* parser : {&stream_, &parts_}) {
    auparse_add_callback(
        parser->state.get(),
        [](auparse_state_t* state, auparse_cb_event_t kind, void* self) { OnAuparseEvent(state, kind, self); }, this,
        nullptr);
    auparse_set_escape_mode(parser->state.get(), AUPARSE_ESC_RAW);
  }
}

AuparseFeed::Parser::Parser() : state(InitAuparse()), source(state.get()) {}

AuparseFeed::~AuparseFeed() = default;

// The kernel encodes control characters, so that a carriage return is a line end of somebody else: auparse would take
// it for a part of the last value.
void AuparseFeed::Feed(const unsigned char* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, bytes.find('\r'));
    if (auparse_feed(stream_.state.get(), part.data(), part.size()) < 0) {
      throw std::runtime_error("Failed to feed to auparse");
    }
    bytes.remove_prefix(std::min(part.size() + 1, bytes.size()));
  }
  ReadJoined();
}

void AuparseFeed::Flush() {
  auparse_flush_feed(stream_.state.get());
  ReadJoined();
}

// Each by itself: beside newer events auparse would take it apart again.
void AuparseFeed::ReadJoined() {
  for (const std::string& records : std::exchange(joined_, {})) {
    if (auparse_feed(parts_.state.get(), records.data(), records.size()) < 0) {
      counters_.Add(IntakeCounters::Reason::NotBuilt);
    }
    auparse_flush_feed(parts_.state.get());
  }
}

void AuparseFeed::GiveUpCutEvents() {
  cut_events_.GiveUp();
}

Events AuparseFeed::TakeEvents() {
  return std::exchange(events_, {});
}

// Called from within C code: nothing may be thrown through it.
void AuparseFeed::OnAuparseEvent(auparse_state_t* state, int kind, void* self) noexcept {
  if (kind != AUPARSE_CB_EVENT_READY) return;
  auto& feed = *static_cast<AuparseFeed*>(self);
  try {
    feed.OnCompleteEvent(state == feed.stream_.state.get() ? feed.stream_ : feed.parts_);
  } catch (const std::exception& error) {
    feed.counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: " << error.what());
  } catch (...) {
    feed.counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: unknown failure");
  }
}

void AuparseFeed::OnCompleteEvent(Parser& parser) {
  if (auparse_first_record(parser.state.get()) < 1) {
    counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_INFO("Failed to fetch first record from event");
    return;
  }
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Received complete event: " + EventText(parser));
  parser.source.Begin();
  const int type = parser.source.FirstType();
  // An operation through io_uring may stand in the event of the call that started it.
  if (type == record_type::kUringOp && Build(parser, {type})) return;
  // So may the abnormal end of a process in the event of the call that killed it, which is told too.
  const bool is_abend = type == record_type::kAnomAbend && Build(parser, {type});
  // The kernel has dropped rules, and the call that made it do so stands behind that.
  const bool is_removal = type == record_type::kConfigChange && Build(parser, {type});
  if (is_abend || is_removal) parser.source.Begin();
  if (const Record* call = parser.source.FindCall()) {
    // What was told of this event already is not told again.
    const bool may_wait = !is_abend && !is_removal;
    if (!may_wait || !KeepIfCut(parser, *call)) BuildFromCall(parser, *call);
  } else if (!is_abend) {
    OnEventWithoutCall(parser, type);
  }
}

void AuparseFeed::OnEventWithoutCall(Parser& parser, int type) {
  if (type != record_type::kEndOfEvent) {
    ZLOG_TRACE("Ignoring event with ID: " << parser.source.Id() << " record type: " << type);
  }
  constexpr RecordKinds kOfCalls = KindsOf(record_type::kPath, record_type::kSockaddr, record_type::kCwd,
                                           record_type::kExecve, record_type::kProctitle, record_type::kOpenAt2);
  if ((KindOf(type) & kOfCalls) != 0) Join(parser, false);
}

bool AuparseFeed::KeepIfCut(Parser& parser, const Record& call) {
  const int last = parser.source.LastType();
  if (last == record_type::kProctitle || last == record_type::kEndOfEvent) return false;
  const std::vector<int> types = parser.source.Types();
  if (std::count(types.begin(), types.end(), record_type::kPath) >=
          ParseNumber(call.fields.Find(edr::RecordField::Items)) &&
      !LacksAddress(call, types)) {
    return false;
  }
  ZLOG_DEBUG("Event with ID: " << parser.source.Id() << " waits for the rest of its records");
  Join(parser, true);
  return true;
}

void AuparseFeed::Join(Parser& parser, bool has_call) {
  auparse_first_record(parser.state.get());
  std::string event;
  if (const au_event_t* stamp = auparse_get_timestamp(parser.state.get())) {
    event = std::to_string(stamp->sec) + "." + std::to_string(stamp->milli) + ":" + std::to_string(stamp->serial) +
            " " + (stamp->host != nullptr ? stamp->host : "");
  }
  std::string whole = cut_events_.Join({std::move(event), parser.source.Timestamp(), has_call, EventText(parser)});
  if (!whole.empty()) joined_.push_back(std::move(whole));
}

void AuparseFeed::BuildFromCall(Parser& parser, const Record& call) {
  const std::optional<long long> number = NumberOf(parser, call);
  if (!number) return;
  const bool in_range = *number >= 0 && *number <= std::numeric_limits<int>::max();
  const auto items = static_cast<std::uint64_t>(ParseNumber(call.fields.Find(edr::RecordField::Items)));
  if (in_range && Build(parser, {call.type, static_cast<int>(*number), items})) return;
  counters_.Add(IntakeCounters::Reason::UnsupportedCall);
  ZLOG_TRACE("Unsupported syscall in event: " << *number);
}

std::optional<long long> AuparseFeed::NumberOf(Parser& parser, const Record& call) {
  const std::string_view arch = call.fields.Find(edr::RecordField::Arch);
  const long long number = ParseNumber(call.fields.Find(edr::RecordField::Syscall));
  if (arch.empty() || arch == kX86_64) return number;
  // The same numbers mean other calls on another architecture.
  if (arch == kI386 && number >= 0 && number <= std::numeric_limits<std::int32_t>::max()) {
    const auto argument = call.fields.Argument(0);
    const auto translated =
        TranslateCompatCall(static_cast<std::uint32_t>(number), ParseHex(argument.value_or(std::string_view())));
    if (translated) {
      parser.source.SetCallNumber(*translated);
      return *translated;
    }
  }
  counters_.Add(IntakeCounters::Reason::UnsupportedCall);
  ZLOG_TRACE("Ignoring event with ID: " << parser.source.Id() << " arch: " << arch);
  return std::nullopt;
}

bool AuparseFeed::Build(Parser& parser, const EventSubject& subject) {
  const BuildResult result = build_events_(subject, parser.source, events_);
  if (result == BuildResult::Dropped) counters_.Add(IntakeCounters::Reason::NotBuilt);
  if (result == BuildResult::Unplaced) counters_.Add(IntakeCounters::Reason::Unplaced);
  return result != BuildResult::Unsupported;
}

// Every record on a line of its own. Leaves the cursor at the first record.
std::string AuparseFeed::EventText(const Parser& parser) {
  std::string text;
  do {
    const char* record = auparse_get_record_text(parser.state.get());
    if (record != nullptr) text.append(record).append("\n");
  } while (auparse_next_record(parser.state.get()) > 0);
  auparse_first_record(parser.state.get());
  return text;
}

}  // namespace zagent::audit::internal
