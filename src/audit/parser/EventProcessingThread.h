#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "common/src/tasks/LoadProbe.h"
#include "common/src/util/Clock.h"
#include "src/audit/parser/IntakeReports.h"
#include "src/edr/Event.h"
#include "src/edr/EventRuleEngine.h"

namespace zagent::audit {

// Second stage of the intake: puts batches of events into the order in which they happened (audit events of different
// processors arrive out of order) and gives each to the rule engine, after what has become due there. ProcessEvent,
// OnIdle and OnStop are called on this stage's thread only.
//
// Bound: edr::EventQueueLimit, or as many bytes as so many ordinary events have (edr::EstimateBytes). At the bound
// AddEvents waits until the whole queue was taken. On top of it come one small batch of events that are done with and
// wait for the thread that made them, and the small batch at hand, which keeps its own until its end.
//
// A stage that dies of an exception is a stopped stage: its producer is woken and never waits again.
class EventProcessingThread {
 public:
  using Events = std::vector<std::unique_ptr<edr::Event>>;

  // How long the rule engine may deliver what still waits in it when the stage ends.
  static constexpr std::chrono::seconds kLastDelivery{5};

  // Limits in percent. The rule engine outlives this object.
  EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit, std::uint64_t memory_limit,
                        IntakeReports reports, common::util::Clock& clock = common::util::Clock::Real());
  EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit, std::uint64_t memory_limit,
                        IntakeReports reports, common::util::Clock& clock, common::LoadProbe load);
  EventProcessingThread(const EventProcessingThread&) = delete;
  EventProcessingThread& operator=(const EventProcessingThread&) = delete;
  ~EventProcessingThread();

  // Throws std::runtime_error "Parsed events processing thread already running".
  void Start();
  // Ends after the event at hand and the rule engine's last delivery; what is queued is dropped. Rethrows what the
  // thread died of. Harmless when stopped.
  void Stop();

  // Called by one other thread. Never blocks on a stopped or dead stage, which drops the events. Leaves in `events`
  // some that the rule engine is done with: to destroy what another thread has made takes a lock from that thread's
  // allocator.
  void AddEvents(Events&& events);

  // Those of the batch at hand among them. From any thread.
  [[nodiscard]] std::uint64_t GetQueuedEvents() const { return queued_events_; }
  // What these hold, by an estimate. From any thread.
  [[nodiscard]] std::uint64_t GetHeldBytes() const { return held_bytes_; }

 private:
  void Run();
  void RunUntilStopped();
  struct Batch {
    Events events;
    std::uint64_t bytes;
  };

  Batch TakeBatch();
  void Process(Batch& batch);
  void ProcessOne(std::unique_ptr<edr::Event>&& event);
  // What is left of a small batch waits for AddEvents, unless another does.
  void HandBack(Batch batch);
  void PauseIfCpuIsHigh();
  // Until nothing is due in the rule engine any more, or the stage is to stop.
  void DeliverWhatIsDue();
  bool Housekeep();
  // Lets nobody wait and drops what is queued.
  void Close();
  void DeliverTheRest();

  std::atomic<bool> stopping_{true};
  std::future<void> future_;
  std::mutex mutex_;
  std::condition_variable filled_condition_;  // events came, or the stage is being stopped
  std::condition_variable space_condition_;
  Events queue_;
  std::uint64_t queue_bytes_ = 0;
  Events done_;
  std::atomic<std::uint64_t> queued_events_{0};  // in queue_ and in the batch
  std::atomic<std::uint64_t> held_bytes_{0};     // by these
  std::uint64_t max_queue_events_;
  common::LoadProbe load_;
  std::uint64_t cpu_limit_;
  edr::EventRuleEngine& rule_engine_;
  IntakeReports reports_;
  common::util::Clock& clock_;
};

}  // namespace zagent::audit
