#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "common/src/util/Clock.h"
#include "common/src/util/LinePace.h"
#include "src/edr/Event.h"
#include "src/health/ComponentHealth.h"
#include "src/ioc/config/Verdict.h"
#include "src/ioc/engines/Engine.h"
#include "src/ioc/process/EventHeap.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/EventGenerator.h"

namespace zagent::ioc::internal {

// The chain that decides what becomes of each event: it waits with its process until there is a verdict, and then
// everything that waits there is judged at once, oldest first. What no verdict has asked for is judged when the time of
// its process is over: of a clean process only its end and the files that it deleted are reported then.
//
// One thread, which alone changes the tree. A failure loses the event at hand: it is counted, and told in one Error
// line a minute.
class EventProcessor {
 public:
  // None is null.
  struct Engines {
    std::unique_ptr<Engine> filtering;  // has the last word on each event
    std::unique_ptr<Engine> hash_matching;
    std::unique_ptr<Engine> heuristics;
    std::unique_ptr<Engine> tagging;
    // The score at which `tagging` finds a process suspicious; 0: the score says nothing.
    std::function<std::int64_t()> threshold_score;
  };
  // What the manifests say of metadata at this moment; given to the generator with each event.
  using SendMetadata = std::function<bool()>;

  // `tree`, `generator`, `health` and `clock` outlive this object.
  EventProcessor(Engines engines, TtlProcessTree& tree, EventGenerator& generator, SendMetadata send_metadata,
                 const health::ComponentHealth& health, common::util::Clock& clock = common::util::Clock::Real());
  EventProcessor(const EventProcessor&) = delete;
  EventProcessor& operator=(const EventProcessor&) = delete;
  ~EventProcessor();

  // Without an event (null) it sees to what is due alone. Never throws a std::exception.
  void Process(std::unique_ptr<edr::Event> event);

 private:
  // Of a process, for as long as one lot of pending events is worked through.
  struct Judgement {
    Verdict verdict;
    std::int64_t score;
  };
  using Judgements = std::unordered_map<std::int32_t, Judgement>;

  void Handle(std::unique_ptr<edr::Event> event);
  void EndPredecessor(std::int32_t pid);
  // Moves the event into the tree; false when the heuristics want nothing done about it.
  bool Enter(std::unique_ptr<edr::Event> event, std::int32_t pid);
  [[nodiscard]] bool IsDamped(const edr::Event& event);
  // The newest event of a process: whether everything that waits there is to be reported.
  [[nodiscard]] bool CallsForReport(const edr::Event& last);
  void Report(EventHeap events);
  void ReportOne(const edr::Event& event);
  void Generate(const edr::Event& event);
  void ProcessPending(EventHeap events);
  void ProcessPendingOne(const edr::Event& event, Judgements& judgements);
  [[nodiscard]] Judgement Judge(std::int32_t pid) const;
  // Of an event of a clean process.
  [[nodiscard]] bool IsWorthReporting(const edr::Event& event, std::int64_t score) const;
  void KeepHouse();
  [[nodiscard]] std::string ImagePathOf(std::int32_t pid) const;
  template <typename Action>
  void LoseOnFailure(Action action);
  void OnFailure(const std::exception& error);

  const Engines engines_;
  TtlProcessTree& tree_;
  EventGenerator& generator_;
  const SendMetadata send_metadata_;
  const health::ComponentHealth& health_;
  common::util::Clock& clock_;
  common::util::Clock::SteadyTime last_stale_check_;
  common::util::LinePace failures_;
};

}  // namespace zagent::ioc::internal
