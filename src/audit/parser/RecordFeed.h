#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "src/audit/events/IntakeCounters.h"
#include "src/audit/events/LineRecordSource.h"
#include "src/audit/events/RecordLine.h"
#include "src/audit/parser/CutEvents.h"
#include "src/audit/parser/EventAssembler.h"
#include "src/audit/parser/EventFactory.h"

namespace zagent::audit::internal {

// Takes the bytes of an audit log in pieces of any length and collects the typed events of the audit events that they
// complete. One thread at a time. What does not become an event is counted.
//
// An older incomplete event holds back all that follow (EventAssembler): Flush makes delivery prompt. An event may come
// in parts then: a flush has cut it, or the kernel sent its last records late. One that lacks what its call has
// announced is built when that has come. What lacks only what stands behind (the command line) is built without it, and
// its tail is ignored.
//
// libauparse reads the records that are more than plain words (LineRecordSource). The others are not shown to it: to
// take a record in costs it more than everything else that is done here.
class RecordFeed {
 public:
  // Throws std::runtime_error "Failed to initialize auparse".
  RecordFeed(EventFactory build_events, IntakeCounters& counters);
  RecordFeed(const RecordFeed&) = delete;
  RecordFeed& operator=(const RecordFeed&) = delete;

  // Throws std::runtime_error "Failed to feed to auparse".
  void Feed(const unsigned char* data, std::size_t size);
  // Completes what still waits for more.
  void Flush();
  // Counts what still waits for the rest of its records, for nothing will come any more.
  void GiveUpCutEvents();
  // In how many parts such events have come so far.
  [[nodiscard]] std::uint64_t GetCutParts() const { return cut_events_.GetPartCount(); }
  // What was collected since the last call, in the order in which it was completed.
  [[nodiscard]] Events TakeEvents();

 private:
  void ReadJoined();
  void OnEvent(std::span<const RecordLine> lines);
  void ReadEvent(std::span<const RecordLine> lines);
  void BuildFromCall(const Record& call);
  // The x86-64 number of a call; nothing, with a trace line, for one that means nothing here.
  std::optional<long long> NumberOf(const Record& call);
  // Answers whether the subject meant anything.
  bool Build(const EventSubject& subject);
  void OnEventWithoutCall(int type);
  // True when records of the event at hand are still to come; it is kept until then.
  bool KeepIfCut(const Record& call);
  void Join(bool has_call);
  [[nodiscard]] std::string EventText() const;
  // The records with which an event that came apart waits.
  [[nodiscard]] std::string TextToKeep() const;

  EventFactory build_events_;
  IntakeCounters& counters_;
  Events events_;
  CutEvents cut_events_;
  std::string joined_;      // all records of an event that came in parts, to be read next
  LineRecordSource event_;  // the one at hand
  EventAssembler assembler_;
};

}  // namespace zagent::audit::internal
