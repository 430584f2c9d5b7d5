#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/AuparseRecordSource.h"
#include "src/audit/events/IntakeCounters.h"
#include "src/audit/parser/CutEvents.h"
#include "src/audit/parser/EventFactory.h"

namespace zagent::audit::internal {

// libauparse in its feed mode: takes the bytes of an audit log in pieces of any length and collects the typed events of
// the audit events that they complete. One thread at a time. What does not become an event is counted.
//
// auparse delivers a complete event only when the next one begins, and an older incomplete event holds back all that
// follow: Flush makes delivery prompt. An event may come in parts then: a flush has cut it, or the kernel sent its last
// records late. One that lacks what its call has announced is built when that has come. What lacks only what stands
// behind (the command line) is built without it, and its tail is ignored.
class AuparseFeed {
 public:
  // Throws std::runtime_error "Failed to initialize auparse".
  AuparseFeed(EventFactory build_events, IntakeCounters& counters);
  AuparseFeed(const AuparseFeed&) = delete;
  AuparseFeed& operator=(const AuparseFeed&) = delete;
  ~AuparseFeed();

  // Throws std::runtime_error "Failed to feed to auparse".
  void Feed(const unsigned char* data, std::size_t size);
  // Completes what auparse still holds.
  void Flush();
  // Counts what still waits for the rest of its records, for nothing will come any more.
  void GiveUpCutEvents();
  // In how many parts such events have come so far.
  [[nodiscard]] std::uint64_t GetCutParts() const { return cut_events_.GetPartCount(); }
  // What was collected since the last call, in the order in which it was completed.
  [[nodiscard]] Events TakeEvents();

 private:
  struct Destroyer {
    void operator()(auparse_state_t* state) const;
  };
  struct Parser {
    Parser();
    std::unique_ptr<auparse_state_t, Destroyer> state;  // its callback fills what stands above it in the feed
    AuparseRecordSource source;
  };
  static void OnAuparseEvent(auparse_state_t* state, int kind, void* self) noexcept;
  void ReadJoined();
  void OnCompleteEvent(Parser& parser);
  void BuildFromCall(Parser& parser, const Record& call);
  // The x86-64 number of a call; nothing, with a trace line, for one that means nothing here.
  std::optional<long long> NumberOf(Parser& parser, const Record& call);
  // Answers whether the subject meant anything.
  bool Build(Parser& parser, const EventSubject& subject);
  void OnEventWithoutCall(Parser& parser, int type);
  // True when records of the event at hand are still to come; it is kept until then.
  bool KeepIfCut(Parser& parser, const Record& call);
  void Join(Parser& parser, bool has_call);
  [[nodiscard]] static std::string EventText(const Parser& parser);

  EventFactory build_events_;
  IntakeCounters& counters_;
  Events events_;
  CutEvents cut_events_;
  std::vector<std::string> joined_;  // records of events that came in parts, each event by itself
  Parser stream_;
  Parser parts_;  // of those events
};

}  // namespace zagent::audit::internal
