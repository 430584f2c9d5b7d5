#include "src/audit/parser/EventAssembler.h"

#include <libaudit.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {
namespace {

// An event that is older than another by more seconds is not waited for any more.
constexpr std::uint64_t kPatience = 2;
constexpr std::size_t kMostSpare = 16;
constexpr std::size_t kMostSpareLines = 64;   // in each
constexpr std::size_t kUsualBytes = 262'144;  // what is kept for the bytes to come

// Whether a record of this type is all that there is of its event: what programs send, and what the kernel tells of
// itself.
bool StandsAlone(int type) {
  return type < AUDIT_FIRST_EVENT || type >= AUDIT_FIRST_ANOM_MSG || type == AUDIT_KERNEL;
}

bool EndsEvent(int type) {
  return type == record_type::kProctitle || type == record_type::kEndOfEvent;
}

// Its last bytes: there the serial number stands.
std::uint64_t EndOfStamp(std::string_view stamp) {
  std::uint64_t end = 0;
  const std::size_t size = std::min(stamp.size(), sizeof(end));
  std::memcpy(&end, stamp.data() + stamp.size() - size, size);
  return end;
}

}  // namespace

void EventAssembler::Feed(std::string_view bytes) {
  ForgetTold();
  Append(bytes);
  TakeLines();
}

void EventAssembler::Flush() {
  while (!pending_.empty()) TellOldest();
  if (bytes_.capacity() > kUsualBytes) ReleaseMemory();
}

std::string_view EventAssembler::TextAt(std::uint64_t at, std::size_t size) const {
  return {bytes_.data() + (at - begin_), size};
}

// The kernel encodes control characters, so that a carriage return is a line end of somebody else.
void EventAssembler::Append(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, bytes.find('\r'));
    bytes_.append(part);
    bytes.remove_prefix(std::min(part.size() + 1, bytes.size()));
  }
}

// Only when that is most of the bytes: what is kept is moved.
void EventAssembler::ForgetTold() {
  const std::uint64_t kept_from = pending_.empty() ? taken_ : pending_.front().lines.front().at;
  const std::size_t told = kept_from - begin_;
  if (told < bytes_.size() - told) return;
  bytes_.erase(0, told);
  begin_ = kept_from;
}

void EventAssembler::ReleaseMemory() {
  bytes_.erase(0, taken_ - begin_);
  begin_ = taken_;
  bytes_.shrink_to_fit();
  open_.shrink_to_fit();
  std::vector<RecordLine>().swap(records_);
}

void EventAssembler::TakeLines() {
  std::string_view rest = TextAt(taken_, begin_ + bytes_.size() - taken_);
  for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    taken_ += end + 1;
    TakeLine(line);
  }
  if (rest.size() > kLongestLine) {
    is_in_long_line_ = true;
    taken_ += rest.size();
  }
}

void EventAssembler::TakeLine(std::string_view text) {
  if (std::exchange(is_in_long_line_, false) || text.size() > kLongestLine) return;
  const std::optional<RecordLine> record = ReadRecordLine(text);
  if (!record) return;
  Pending* const event = EventOf(*record);
  if (event == nullptr) return;
  event->lines.push_back(PlaceOf(*record));
  if (EndsEvent(record->type) || (event->lines.size() == 1 && StandsAlone(record->type))) Close(*event);
  TellComplete();
}

EventAssembler::Pending* EventAssembler::EventOf(const RecordLine& record) {
  const std::uint64_t stamp_end = EndOfStamp(record.stamp);
  for (auto open = open_.rbegin(); open != open_.rend(); ++open) {
    if (open->stamp_end != stamp_end) continue;
    Pending& event = pending_[open->at - told_];
    if (IsOf(event, record)) return &event;
  }
  // An event that has its command line is told already when its end comes.
  return record.type == record_type::kEndOfEvent ? nullptr : Begin(record);
}

EventAssembler::Pending* EventAssembler::Begin(const RecordLine& record) {
  const std::optional<EventStamp> stamp = ReadStamp(record.stamp);
  if (!stamp) return nullptr;
  newest_seconds_ = stamp->seconds;
  open_.push_back({told_ + pending_.size(), EndOfStamp(record.stamp)});
  Pending& event = pending_.emplace_back();
  event.at = open_.back().at;
  event.seconds = stamp->seconds;
  if (!spare_.empty()) {
    event.lines.swap(spare_.back());
    spare_.pop_back();
  }
  return &event;
}

bool EventAssembler::IsOf(const Pending& event, const RecordLine& record) const {
  const Line& first = event.lines.front();
  return TextAt(first.at + first.stamp_at, first.stamp_size) == record.stamp &&
         TextAt(first.at + first.host_at, first.host_size) == record.host;
}

bool EventAssembler::IsGivenUp(const Pending& oldest) const {
  const bool is_old = newest_seconds_ > oldest.seconds && newest_seconds_ - oldest.seconds > kPatience;
  return is_old || open_.size() > kMostOpen || taken_ - oldest.lines.front().at > kMostBytes;
}

void EventAssembler::Close(Pending& event) {
  event.is_open = false;
  const auto is_before = [](const Open& open, std::uint64_t at) { return open.at < at; };
  open_.erase(std::lower_bound(open_.begin(), open_.end(), event.at, is_before));
}

void EventAssembler::TellComplete() {
  while (!pending_.empty() && (!pending_.front().is_open || IsGivenUp(pending_.front()))) TellOldest();
}

void EventAssembler::TellOldest() {
  Pending& oldest = pending_.front();
  if (oldest.is_open) Close(oldest);
  records_.clear();
  for (const Line& line : oldest.lines) records_.push_back(RecordAt(line));
  oldest.lines.clear();
  if (spare_.size() < kMostSpare && oldest.lines.capacity() <= kMostSpareLines)
    spare_.push_back(std::move(oldest.lines));
  pending_.pop_front();
  ++told_;
  tell_(records_);
}

EventAssembler::Line EventAssembler::PlaceOf(const RecordLine& record) const {
  const char* const begin = record.text.data();
  const auto place = [begin](std::string_view part) {
    return part.empty() ? 0 : static_cast<std::uint32_t>(part.data() - begin);
  };
  Line line;
  line.at = begin_ + static_cast<std::uint64_t>(begin - bytes_.data());
  line.size = static_cast<std::uint32_t>(record.text.size());
  line.type = record.type;
  line.host_at = place(record.host);
  line.host_size = static_cast<std::uint32_t>(record.host.size());
  line.stamp_at = place(record.stamp);
  line.stamp_size = static_cast<std::uint32_t>(record.stamp.size());
  line.body_at = place(record.body);
  line.body_size = static_cast<std::uint32_t>(record.body.size());
  return line;
}

RecordLine EventAssembler::RecordAt(const Line& line) const {
  const std::string_view text = TextAt(line.at, line.size);
  return {line.type, text.substr(line.host_at, line.host_size), text.substr(line.stamp_at, line.stamp_size), text,
          text.substr(line.body_at, line.body_size)};
}

}  // namespace zagent::audit::internal
