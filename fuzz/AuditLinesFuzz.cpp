// Feeds bytes to the reader of audit lines, at once and in pieces as a socket may hand them over. The sound event
// behind the bytes must come out, whatever they were, and both ways must find the same events with the same fields;
// where the records of one came apart, what it has beside the announced ones depends on when they came.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/SilentLog.h"
#include "src/audit/parser/RecordFeed.h"

namespace {

using zagent::audit::internal::BuildResult;
using zagent::audit::internal::Events;
using zagent::audit::internal::EventSubject;
using zagent::audit::internal::Record;
using zagent::audit::internal::RecordFeed;
using zagent::audit::internal::RecordKinds;
using zagent::audit::internal::RecordSource;
using zagent::edr::RecordField;
using zagent::edr::RecordFields;

// Of no other event's number.
const std::string kSoundEvent =
    "type=SYSCALL msg=audit(9000000000.999:4294967290): arch=c000003e syscall=231 a0=7 items=0 ppid=1 pid=4711 "
    "auid=1000 uid=0 euid=0 exe=\"/bin/sound\" key=\"fuzz\"\n";
const std::string kSoundStart = "4294967290 call 231";

std::string TextOf(const Record& record) {
  std::string text = " | " + std::to_string(record.type);
  for (unsigned at = 0; at < static_cast<unsigned>(RecordField::Count); ++at) {
    const auto field = static_cast<RecordField>(at);
    if (record.fields.Has(field))
      text.append(" ").append(std::to_string(at)).append("=").append(record.fields.At(field));
  }
  for (std::size_t at = 0; at < RecordFields::kMaxArguments; ++at) {
    if (const auto argument = record.fields.Argument(at)) {
      text.append(" a").append(std::to_string(at)).append("=").append(*argument);
    }
  }
  return text;
}

// What comes out of the reader, event by event.
class Reader {
 public:
  void Feed(const std::uint8_t* data, std::size_t size) { feed_.Feed(data, size); }
  void Feed(const std::string& text) { Feed(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()); }
  // Sorted: auparse puts in order what it has at a time, and the rest is left to who takes the events.
  const std::vector<std::string>& Finish() {
    Feed("\n" + kSoundEvent);
    feed_.Flush();
    std::sort(events_.begin(), events_.end());
    return events_;
  }
  [[nodiscard]] bool IsSound() const {
    return std::any_of(events_.begin(), events_.end(),
                       [](const std::string& event) { return event.starts_with(kSoundStart); });
  }
  [[nodiscard]] bool HasSeenParts() const { return feed_.GetCutParts() != 0; }

 private:
  BuildResult Note(const EventSubject& subject, RecordSource& source) {
    std::string text = std::to_string(source.Id()) + " call " + std::to_string(subject.syscall);
    constexpr RecordKinds kAll = 0xffff;
    while (const Record* record = source.Next(kAll)) text += TextOf(*record);
    events_.push_back(std::move(text));
    return BuildResult::Built;
  }

  std::vector<std::string> events_;
  zagent::audit::IntakeCounters counters_;
  RecordFeed feed_{[this](const EventSubject& subject, RecordSource& source, Events&) { return Note(subject, source); },
                   counters_};
};

}  // namespace

// auparse never frees the fields of a record in which it found none: 1152 bytes a damaged line.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libauparse.so";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  Reader at_once;
  at_once.Feed(data, size);
  const std::vector<std::string> expected = at_once.Finish();
  if (!at_once.IsSound()) std::abort();

  Reader in_pieces;
  for (std::size_t at = 0; at < size;) {
    // Pieces of one to 128 bytes, by the bytes themselves.
    const std::size_t piece = std::min<std::size_t>(1 + data[at] % 128, size - at);
    in_pieces.Feed(data + at, piece);
    at += piece;
  }
  const std::vector<std::string>& found = in_pieces.Finish();
  if (!in_pieces.IsSound()) std::abort();
  const bool came_apart = at_once.HasSeenParts() || in_pieces.HasSeenParts();
  if (!came_apart && found != expected) std::abort();
  return 0;
}
