#include "src/ioc/ProcessingThread.h"

#include <utility>

#include "common/src/util/HeapTrim.h"
#include "common/src/util/Log.h"
#include "src/edr/EventQueueLimit.h"
#include "src/edr/process/EventBytes.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

constexpr std::uint64_t kWaitMillis = 100;
constexpr std::uint64_t kIdleWaitMillis = 1000;
constexpr std::uint64_t kCpuPauseMillis = 10;
constexpr std::chrono::minutes kTellInterval{1};

}  // namespace

ProcessingThread::ProcessingThread(Processor processor, DropCounter count_dropped, std::uint64_t cpu_limit,
                                   std::uint64_t memory_limit, common::util::Clock& clock, const std::string& proc_root,
                                   TurnBeginner begin_turn)
    : ThreadedClass("EdrProcessingThread", cpu_limit, memory_limit, clock, proc_root),
      processor_(std::move(processor)),
      count_dropped_(std::move(count_dropped)),
      begin_turn_(std::move(begin_turn)),
      clock_(clock),
      limit_(edr::EventQueueLimit(memory_limit * GetResourceMonitor().GetTotalMemoryKb() / 100)),
      next_tell_(clock.SteadyNow()) {
  SetThreadName("edr-ioc");
  SetWait(kWaitMillis, [this] { return HasIntake(); });
  SetCpuCheck(CpuCheck::PauseOnce, kCpuPauseMillis);
}

ProcessingThread::~ProcessingThread() {
  Stop();
  const common::util::Clock::SteadyTime deadline = clock_.SteadyNow() + kLastEvents;
  TakeIntake();
  begin_turn_();
  while (!active_.empty() && clock_.SteadyNow() < deadline) ProcessNext();
  if (!active_.empty()) {
    ZLOG_WARNING("ProcessingThread: Left " << active_.size() << " events at the stop");
    count_dropped_(active_.size());
  }
  next_tell_ = clock_.SteadyNow();
  TellOfDrops();
}

void ProcessingThread::Enqueue(std::unique_ptr<edr::Event> event) {
  const std::uint64_t bytes = edr::EstimateBytes(*event);
  bool was_empty = false;
  {
    const std::lock_guard lock(mutex_);
    if (IsFull()) {
      ++dropped_;
      count_dropped_(1);
      return;
    }
    was_empty = intake_.empty();
    intake_.push_back({std::move(event), bytes});
    ++queued_events_;
    queued_bytes_ += bytes;
  }
  // The thread sleeps on an empty intake only.
  if (was_empty) Notify();
}

bool ProcessingThread::IsFull() const {
  return queued_events_ >= limit_ || queued_bytes_ >= limit_ * edr::kOrdinaryEventBytes;
}

bool ProcessingThread::HasIntake() const {
  const std::lock_guard lock(mutex_);
  return !intake_.empty();
}

void ProcessingThread::Execute() {
  TellOfDrops();
  if (active_.empty()) TakeIntake();
  SetPace(active_.empty());
  if (active_.empty()) {
    processor_(nullptr);
    common::util::FreeKeptBlocks();
    return;
  }
  begin_turn_();
  while (!active_.empty()) {
    ProcessNext();
    PauseIfCpuIsHigh();
  }
}

void ProcessingThread::SetPace(bool is_idle) {
  if (is_idle == std::exchange(is_idle_, is_idle)) return;
  SetWait(is_idle ? kIdleWaitMillis : kWaitMillis, [this] { return HasIntake(); });
}

void ProcessingThread::TakeIntake() {
  const std::lock_guard lock(mutex_);
  if (active_.empty()) {
    active_.swap(intake_);
    return;
  }
  for (Entry& entry : intake_) active_.push_back(std::move(entry));
  intake_.clear();
}

void ProcessingThread::ProcessNext() {
  Entry entry = std::move(active_.front());
  active_.pop_front();
  --queued_events_;
  queued_bytes_ -= entry.bytes;
  processor_(std::move(entry.event));
}

void ProcessingThread::PauseIfCpuIsHigh() {
  if (IsStopped()) return;
  common::ResourceMonitor& monitor = GetResourceMonitor();
  if (monitor.GetCpuUsagePercent() <= static_cast<float>(monitor.GetCpuLimit())) return;
  ZLOG_DEBUG("Active event processing queue size: " << active_.size());
  CpuPause();
}

void ProcessingThread::TellOfDrops() {
  const std::uint64_t dropped = dropped_;
  if (dropped == told_dropped_ || clock_.SteadyNow() < next_tell_) return;
  next_tell_ = clock_.SteadyNow() + kTellInterval;
  ZLOG_WARNING("ProcessingThread: Dropped " << dropped - told_dropped_ << " events: more than " << limit_
                                            << " were waiting, or as many bytes");
  told_dropped_ = dropped;
}

}  // namespace zagent::ioc::internal
