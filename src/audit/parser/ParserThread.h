#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>

#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/util/Clock.h"
#include "src/audit/channels/IOChannel.h"
#include "src/audit/parser/AuparseFeed.h"
#include "src/audit/parser/EventProcessingThread.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit {

// First stage of the intake: takes bytes from an audit channel, feeds auparse, hands typed events to the second stage.
//
// Bound: half of the allowed memory, between 100 MiB and 1 GiB of bytes that are not parsed yet. At the bound bytes
// are dropped until half of it is free again; two log lines mark the gap. The channel's thread never waits.
class ParserThread {
 public:
  // Limits in percent. Installs the read callback on the channel, which must be stopped and outlive this object.
  ParserThread(IOChannel& channel, std::shared_ptr<edr::LibMagicWrapper> lib_magic, edr::EventRuleEngine& rule_engine,
               std::uint64_t cpu_limit, std::uint64_t memory_limit,
               common::util::Clock& clock = common::util::Clock::Real());
  ParserThread(const ParserThread&) = delete;
  ParserThread& operator=(const ParserThread&) = delete;
  ~ParserThread();

  // Throws std::runtime_error "Audit Parser thread already running".
  void Start();
  // Stops the second stage, then this one; rethrows what the parser died of. Harmless when stopped.
  void Stop();

  struct QueueLimits {
    std::uint64_t max_bytes;
    std::uint64_t resume_bytes;
  };
  // `budget` is the memory limit in percent times the total memory in KB.
  static QueueLimits QueueLimitsFor(std::uint64_t budget);

 private:
  void OnData(IOChannel::Bytes&& data);
  void Run();
  bool TakeData(IOChannel::Bytes& data);
  void Feed(const IOChannel::Bytes& data);
  void PauseWhileCpuIsHigh();

  std::future<void> future_;
  std::atomic<bool> stopping_{true};
  std::mutex pause_mutex_;
  std::condition_variable pause_condition_;
  IOChannel::Bytes queue_;
  std::mutex queue_mutex_;
  std::condition_variable data_condition_;
  bool idle_ = true;
  common::ResourceMonitor resource_monitor_;
  EventProcessingThread event_processing_thread_;
  bool queue_disabled_ = false;
  std::atomic<std::uint64_t> queue_bytes_{0};
  QueueLimits limits_;
  common::util::Clock& clock_;
  internal::AuparseFeed parser_;
};

}  // namespace zagent::audit
