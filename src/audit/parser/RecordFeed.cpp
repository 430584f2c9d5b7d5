#include "src/audit/parser/RecordFeed.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <limits>
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

// What an event that came apart keeps of its list of arguments.
constexpr std::size_t kMostArguments = 32'768;

// The record with those of its words that anybody reads: an argument that is too long for one record comes in parts,
// which are read by nobody. Empty without such a word.
std::string ArgumentsOf(const RecordLine& line) {
  std::string words;
  for (std::string_view rest = line.body; !rest.empty();) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    const std::string_view name = word.substr(0, word.find('='));
    if (name == "argc" || edr::ArgumentNamed(name)) words.append(words.empty() ? "" : " ").append(word);
  }
  if (words.empty()) return words;
  return std::string(line.text.data(), line.body.data()) + words;
}

long long CountOf(int type, std::span<const RecordLine> lines) {
  return std::count_if(lines.begin(), lines.end(), [type](const RecordLine& line) { return line.type == type; });
}

// Every call has announced its paths; an address it has not.
bool LacksAddress(const Record& call, std::span<const RecordLine> lines) {
  constexpr long long kConnect = 42;
  constexpr long long kBind = 49;
  const long long number = ParseNumber(call.fields.Find(edr::RecordField::Syscall));
  return (number == kConnect || number == kBind) && CountOf(record_type::kSockaddr, lines) == 0;
}

}  // namespace

RecordFeed::RecordFeed(EventFactory build_events, IntakeCounters& counters)
    : build_events_(std::move(build_events)),
      counters_(counters),
      cut_events_(counters),
      assembler_([this](std::span<const RecordLine> lines) { OnEvent(lines); }) {}

void RecordFeed::Feed(const unsigned char* data, std::size_t size) {
  assembler_.Feed({reinterpret_cast<const char*>(data), size});
}

// Each event that auparse does not take any more has left when that is told.
void RecordFeed::Flush() {
  for (bool is_done = false; !is_done;) {
    try {
      assembler_.Flush();
      is_done = true;
    } catch (const AuparseFailure&) {
      counters_.Add(IntakeCounters::Reason::NotBuilt);
    }
  }
}

void RecordFeed::ReadJoined() {
  const std::string event = std::exchange(joined_, {});
  std::vector<RecordLine> lines;
  for (std::string_view rest = event; !rest.empty();) {
    const std::string_view text = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    if (const auto line = ReadRecordLine(text)) lines.push_back(*line);
  }
  ReadEvent(lines);
}

void RecordFeed::GiveUpCutEvents() {
  cut_events_.GiveUp();
}

Events RecordFeed::TakeEvents() {
  return std::exchange(events_, {});
}

void RecordFeed::OnEvent(std::span<const RecordLine> lines) {
  try {
    ReadEvent(lines);
    // Before anything that came behind it: who removes a folder has emptied it first.
    if (!joined_.empty()) ReadJoined();
  } catch (const AuparseFailure&) {
    throw;
  } catch (const std::exception& error) {
    counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: " << error.what());
  } catch (...) {
    counters_.Add(IntakeCounters::Reason::NotBuilt);
    ZLOG_DEBUG("Dropping event: unknown failure");
  }
}

void RecordFeed::ReadEvent(std::span<const RecordLine> lines) {
  event_.Begin(lines);
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Received complete event: " + EventText());
  const int type = lines.front().type;
  // An operation through io_uring may stand in the event of the call that started it.
  if (type == record_type::kUringOp && Build({type})) return;
  // So may the abnormal end of a process in the event of the call that killed it, which is told too.
  const bool is_abend = type == record_type::kAnomAbend && Build({type});
  // The kernel has dropped rules, and the call that made it do so stands behind that.
  const bool is_removal = type == record_type::kConfigChange && Build({type});
  if (is_abend || is_removal) event_.Begin(lines);
  if (const Record* call = event_.FindCall()) {
    // What was told of this event already is not told again.
    const bool may_wait = !is_abend && !is_removal;
    if (!may_wait || !KeepIfCut(*call)) BuildFromCall(*call);
  } else if (!is_abend) {
    OnEventWithoutCall(type);
  }
}

void RecordFeed::OnEventWithoutCall(int type) {
  if (type != record_type::kEndOfEvent) {
    ZLOG_TRACE("Ignoring event with ID: " << event_.Id() << " record type: " << type);
  }
  constexpr RecordKinds kOfCalls = KindsOf(record_type::kPath, record_type::kSockaddr, record_type::kCwd,
                                           record_type::kExecve, record_type::kProctitle, record_type::kOpenAt2);
  if ((KindOf(type) & kOfCalls) != 0) Join(false);
}

bool RecordFeed::KeepIfCut(const Record& call) {
  const std::span<const RecordLine> lines = event_.Lines();
  const int last = lines.back().type;
  if (last == record_type::kProctitle || last == record_type::kEndOfEvent) return false;
  if (CountOf(record_type::kPath, lines) >= ParseNumber(call.fields.Find(edr::RecordField::Items)) &&
      !LacksAddress(call, lines)) {
    return false;
  }
  ZLOG_DEBUG("Event with ID: " << event_.Id() << " waits for the rest of its records");
  Join(true);
  return true;
}

void RecordFeed::Join(bool has_call) {
  const RecordLine& first = event_.Lines().front();
  std::string event = std::string(first.stamp) + " " + std::string(first.host);
  std::string records = TextToKeep();
  if (records.empty()) return;
  joined_ = cut_events_.Join({std::move(event), event_.Timestamp(), has_call, std::move(records)});
}

void RecordFeed::BuildFromCall(const Record& call) {
  const std::optional<long long> number = NumberOf(call);
  if (!number) return;
  const bool in_range = *number >= 0 && *number <= std::numeric_limits<int>::max();
  const auto items = static_cast<std::uint64_t>(ParseNumber(call.fields.Find(edr::RecordField::Items)));
  if (in_range && Build({call.type, static_cast<int>(*number), items})) return;
  counters_.Add(IntakeCounters::Reason::UnsupportedCall);
  ZLOG_TRACE("Unsupported syscall in event: " << *number);
}

std::optional<long long> RecordFeed::NumberOf(const Record& call) {
  const std::string_view arch = call.fields.Find(edr::RecordField::Arch);
  const long long number = ParseNumber(call.fields.Find(edr::RecordField::Syscall));
  if (arch.empty() || arch == kX86_64) return number;
  // The same numbers mean other calls on another architecture.
  if (arch == kI386 && number >= 0 && number <= std::numeric_limits<std::int32_t>::max()) {
    const auto argument = call.fields.Argument(0);
    const auto translated =
        TranslateCompatCall(static_cast<std::uint32_t>(number), ParseHex(argument.value_or(std::string_view())));
    if (translated) {
      event_.SetCallNumber(*translated);
      return *translated;
    }
  }
  counters_.Add(IntakeCounters::Reason::UnsupportedCall);
  ZLOG_TRACE("Ignoring event with ID: " << event_.Id() << " arch: " << arch);
  return std::nullopt;
}

bool RecordFeed::Build(const EventSubject& subject) {
  const BuildResult result = build_events_(subject, event_, events_);
  if (result == BuildResult::Dropped) counters_.Add(IntakeCounters::Reason::NotBuilt);
  if (result == BuildResult::Unplaced) counters_.Add(IntakeCounters::Reason::Unplaced);
  return result != BuildResult::Unsupported;
}

// Every record on a line of its own.
std::string RecordFeed::EventText() const {
  std::string text;
  for (const RecordLine& line : event_.Lines()) text.append(line.text).append("\n");
  return text;
}

// A program may be called with so many arguments that their records, megabytes of them, are more than can wait. The
// first ones are kept: what the program is, and where, stands behind them.
std::string RecordFeed::TextToKeep() const {
  std::string text;
  std::size_t arguments = 0;
  for (const RecordLine& line : event_.Lines()) {
    if (line.type == record_type::kExecve) {
      const std::string record = ArgumentsOf(line);
      if (record.empty() || arguments + record.size() > kMostArguments) continue;
      arguments += record.size();
      text.append(record).append("\n");
    } else {
      text.append(line.text).append("\n");
    }
  }
  return text;
}

}  // namespace zagent::audit::internal
