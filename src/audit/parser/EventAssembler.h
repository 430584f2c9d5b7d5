#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "src/audit/events/RecordLine.h"

namespace zagent::audit::internal {

// Takes the bytes of an audit log in pieces of any length and puts the lines of each event together: the kernel sends
// an event record by record, and those of other processors in between. One thread at a time.
//
// An event is complete with its command line (PROCTITLE) or its end (EOE), or when its only record is of a type that
// stands alone. Events are told in the order in which they began: one that is not complete holds back those behind it,
// until a record comes that is more than two seconds newer, or a flush, or a bound: kMostOpen, kMostBytes. Then it is
// told as far as it came; what comes of it later is told by itself.
//
// Lines that do not begin as records do, or that are longer than kLongestLine, are passed over.
class EventAssembler {
 public:
  // The lines of one event, in the order in which they came; valid during the call. What it throws goes to the caller
  // of Feed or Flush, and the event is told no more.
  using Tell = std::function<void(std::span<const RecordLine>)>;

  // When the kernel's queue is full, every process that works may stand within its event.
  static constexpr std::size_t kMostOpen = 4096;
  static constexpr std::size_t kMostBytes = 4'194'304;  // that wait to be told
  static constexpr std::size_t kLongestLine = 65'536;

  explicit EventAssembler(Tell tell) : tell_(std::move(tell)) {}

  void Feed(std::string_view bytes);
  // Tells all events that are there, and frees what a storm has taken. A line without an end stays, for the rest of it.
  void Flush();

 private:
  // A record where its line stands in the stream of bytes; the other places count from the line's begin.
  struct Line {
    std::uint64_t at = 0;
    std::uint32_t size = 0;
    int type = 0;
    std::uint32_t host_at = 0, host_size = 0;
    std::uint32_t stamp_at = 0, stamp_size = 0;
    std::uint32_t body_at = 0, body_size = 0;
  };
  using Lines = std::vector<Line>;
  struct Pending {
    std::uint64_t at = 0;  // counted from the stream's begin
    Lines lines;
    std::uint64_t seconds = 0;
    bool is_open = true;
  };
  // A pending event that is open, and the end of its stamp, by which nearly all others are told apart.
  struct Open {
    std::uint64_t at = 0;
    std::uint64_t stamp_end = 0;
  };

  [[nodiscard]] std::string_view TextAt(std::uint64_t at, std::size_t size) const;
  void Append(std::string_view bytes);
  void ForgetTold();
  void ReleaseMemory();
  void TakeLines();
  void TakeLine(std::string_view text);
  // The open event of a record, which is begun for its first; null when the record makes none.
  Pending* EventOf(const RecordLine& record);
  Pending* Begin(const RecordLine& record);
  [[nodiscard]] bool IsOf(const Pending& event, const RecordLine& record) const;
  [[nodiscard]] bool IsGivenUp(const Pending& oldest) const;
  void Close(Pending& event);
  void TellComplete();
  void TellOldest();
  [[nodiscard]] Line PlaceOf(const RecordLine& record) const;
  [[nodiscard]] RecordLine RecordAt(const Line& line) const;

  Tell tell_;
  std::string bytes_;  // of the stream, from begin_ on
  std::uint64_t begin_ = 0;
  std::uint64_t taken_ = 0;  // up to here lines were taken
  bool is_in_long_line_ = false;
  std::deque<Pending> pending_;       // in the order in which they began
  std::uint64_t told_ = 0;            // how many have left pending_
  std::vector<Open> open_;            // in the same order
  std::uint64_t newest_seconds_ = 0;  // of the event that began last
  std::vector<Lines> spare_;
  std::vector<RecordLine> records_;  // of the event that is being told
};

}  // namespace zagent::audit::internal
