#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "common/src/tasks/LoadProbe.h"
#include "common/src/util/Clock.h"
#include "src/audit/channels/IOChannel.h"
#include "src/audit/events/FileContext.h"
#include "src/audit/parser/EventProcessingThread.h"
#include "src/audit/parser/IntakeReports.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit {

// First stage of the intake: takes bytes from an audit channel, builds typed events, hands them to the second stage.
//
// Bound: half of the allowed memory, between 100 MiB and 1 GiB of bytes that are not parsed yet. At the bound bytes
// are dropped until half of it is free again; two log lines mark the gap. The channel's thread never waits. The bytes
// take no more memory than they count for, also while they are being fed.
//
// A stage that dies of an exception is a stopped stage: from then on what the channel reads is dropped.
class ParserThread {
 public:
  // What a test puts in the place of the program's event classes and of this machine.
  struct Seams {
    internal::EventFactory build_events;
    std::function<common::LoadProbe()> make_load_probe;         // called once for each stage
    std::shared_ptr<internal::DiskLooks> disk_looks = nullptr;  // of the event classes, to be renewed by the piece
    // Called on the parser's thread when data came that it waited for: what follows at once is taken along, for it
    // costs more to sleep than to parse a record. Returns soon; may be empty.
    std::function<void()> let_gather = {};
  };

  // Limits in percent. Installs the read callback on the channel, which must be stopped now and when this object goes.
  // A context without a cache of digests gets one of its own.
  ParserThread(IOChannel& channel, internal::FileContext context, edr::EventRuleEngine& rule_engine,
               std::uint64_t cpu_limit, std::uint64_t memory_limit, IntakeReports reports,
               common::util::Clock& clock = common::util::Clock::Real());
  ParserThread(IOChannel& channel, edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
               std::uint64_t memory_limit, IntakeReports reports, common::util::Clock& clock, Seams seams);
  ParserThread(const ParserThread&) = delete;
  ParserThread& operator=(const ParserThread&) = delete;
  ~ParserThread();

  // Throws std::runtime_error "Audit Parser thread already running".
  void Start();
  // Stops the second stage, then this one; rethrows what they died of, this one's first. Harmless when stopped. What
  // has not been parsed is dropped.
  void Stop();

  // What waits in the two stages, those that are being worked on among them. From any thread.
  [[nodiscard]] std::uint64_t GetQueuedBytes() const { return queue_bytes_; }
  [[nodiscard]] std::uint64_t GetQueuedEvents() const { return event_processing_thread_.GetQueuedEvents(); }
  [[nodiscard]] std::uint64_t GetEventBytes() const { return event_processing_thread_.GetHeldBytes(); }

  struct QueueLimits {
    std::uint64_t max_bytes;
    std::uint64_t resume_bytes;
    bool operator==(const QueueLimits&) const = default;
  };
  // `budget` is the memory limit in percent times the total memory in KB.
  static QueueLimits QueueLimitsFor(std::uint64_t budget);

 private:
  // What the channel has read, in pieces of one size.
  using Pieces = std::vector<IOChannel::Bytes>;

  void OnData(IOChannel::Bytes&& data);
  bool IsTakingData(std::size_t size);
  void Queue(IOChannel::Bytes&& data);
  void Run();
  void RunUntilStopped();
  bool TakeData(Pieces& data);
  void Feed(Pieces& data);
  // Feeds one piece. `step` counts what was fed since the load was measured the last time.
  void FeedPiece(const IOChannel::Bytes& piece, std::size_t& step);
  // The disk may have changed since.
  void ForgetLooks();
  void EndStep(std::size_t& step);
  void PassEventsOn();
  void PauseWhileCpuIsHigh();
  void WakeToStop();
  // Takes nothing in any more and drops what is queued.
  void Close();

  std::future<void> future_;
  std::atomic<bool> stopping_{true};
  std::mutex pause_mutex_;
  std::condition_variable pause_condition_;
  Pieces queue_;
  std::mutex queue_mutex_;
  std::condition_variable data_condition_;
  bool idle_ = true;  // no event waits for more of its records
  std::size_t fed_since_passed_on_ = 0;
  std::uint64_t cpu_limit_;
  common::LoadProbe load_;
  EventProcessingThread event_processing_thread_;
  IntakeReports reports_;
  bool closed_ = false;  // the loop has ended; under queue_mutex_
  bool queue_disabled_ = false;
  // In the queue or still being fed. Grows under queue_mutex_, shrinks without it.
  std::atomic<std::uint64_t> queue_bytes_{0};
  QueueLimits limits_;
  common::util::Clock& clock_;
  std::shared_ptr<internal::DiskLooks> disk_looks_;
  std::function<void()> let_gather_;
  internal::RecordFeed parser_;
};

}  // namespace zagent::audit
