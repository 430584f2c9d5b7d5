#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "common/src/tasks/ThreadedClass.h"
#include "common/src/util/Clock.h"
#include "src/edr/Event.h"

namespace zagent::ioc::internal {

// The thread that judges events, so that whoever hands them over never waits for an engine. In a turn it processes all
// that has come, oldest first; without any event it still calls the processor, with none: ten times a second while
// events come, and every second when a turn has found none, so that an idle host is left alone.
//
// A stop waits for the turn at hand, to its last event: a turn holds as many as the bound at the most, and how long
// that takes is the processor's affair. There are no pauses in it any more.
//
// Bound: as many events as the event queue in front of it holds (edr::EventQueueLimit), or as many bytes as so many
// ordinary events have (edr::EstimateBytes). Beyond it events are dropped, counted, and told in one warning a minute.
class ProcessingThread final : public common::ThreadedClass {
 public:
  // Called on this thread alone, and once it has ended on the destroying one.
  using Processor = std::function<void(std::unique_ptr<edr::Event>)>;
  // Called where a Processor is, before what has been enqueued by then goes to it.
  using TurnBeginner = std::function<void()>;
  // Told how many events were dropped, on the thread that drops them.
  using DropCounter = std::function<void(std::uint64_t)>;

  // How long the destructor goes on with what came during the last turn.
  static constexpr std::chrono::seconds kLastEvents{5};

  // Limits in percent.
  ProcessingThread(
      Processor processor, DropCounter count_dropped, std::uint64_t cpu_limit, std::uint64_t memory_limit,
      common::util::Clock& clock = common::util::Clock::Real(), const std::string& proc_root = "/proc",
      TurnBeginner begin_turn = [] {});
  ProcessingThread(const ProcessingThread&) = delete;
  ProcessingThread& operator=(const ProcessingThread&) = delete;
  // Stops the thread, which ends its turn, and processes what came during it, for kLastEvents; what then remains is
  // dropped and counted.
  ~ProcessingThread() override;

  // From any thread; never waits for an engine.
  void Enqueue(std::unique_ptr<edr::Event> event);

  // Those of the turn at hand among them. From any thread.
  [[nodiscard]] std::uint64_t GetQueuedEvents() const { return queued_events_; }
  // What these hold, by an estimate. From any thread.
  [[nodiscard]] std::uint64_t GetQueuedBytes() const { return queued_bytes_; }
  [[nodiscard]] std::uint64_t GetLimit() const { return limit_; }

 protected:
  void Execute() override;
  void OnStart() override {}

 private:
  struct Entry {
    std::unique_ptr<edr::Event> event;
    std::uint64_t bytes;
  };
  using Events = std::deque<Entry>;

  [[nodiscard]] bool IsFull() const;
  [[nodiscard]] bool HasIntake() const;
  // How long until the next turn, when no event comes. On this thread.
  void SetPace(bool is_idle);
  void TakeIntake();
  void ProcessNext();
  void PauseIfCpuIsHigh();
  void TellOfDrops();

  const Processor processor_;
  const DropCounter count_dropped_;
  const TurnBeginner begin_turn_;
  common::util::Clock& clock_;
  const std::uint64_t limit_;
  Events active_;  // of the turn at hand
  bool is_idle_ = false;
  std::atomic<std::uint64_t> queued_events_{0};
  std::atomic<std::uint64_t> queued_bytes_{0};
  std::atomic<std::uint64_t> dropped_{0};
  std::uint64_t told_dropped_ = 0;
  common::util::Clock::SteadyTime next_tell_;

  mutable std::mutex mutex_;
  Events intake_;
};

}  // namespace zagent::ioc::internal
