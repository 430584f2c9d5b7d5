#include "src/audit/parser/EventProcessingThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit {
namespace {

constexpr std::chrono::seconds kIdleInterval{1};
constexpr std::chrono::milliseconds kCpuPause{10};

bool HappenedBefore(const std::unique_ptr<edr::Event>& left, const std::unique_ptr<edr::Event>& right) {
  return std::make_tuple(left->GetTimestamp(), left->GetId()) < std::make_tuple(right->GetTimestamp(), right->GetId());
}

}  // namespace

EventProcessingThread::EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                                             std::uint64_t memory_limit, common::util::Clock& clock)
    : EventProcessingThread(rule_engine, cpu_limit, memory_limit, clock,
                            MakeLoadProbe(cpu_limit, memory_limit, clock)) {}

EventProcessingThread::EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                                             std::uint64_t memory_limit, common::util::Clock& clock, LoadProbe load)
    : max_queue_events_(QueueLimitFor(memory_limit * load.total_memory_kb / 100)),
      load_(std::move(load)),
      cpu_limit_(cpu_limit),
      rule_engine_(rule_engine),
      clock_(clock) {
  ZLOG_DEBUG("Setting processing queue size to " << max_queue_events_ << " events");
}

EventProcessingThread::~EventProcessingThread() {
  try {
    Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // The thread has logged it.
  }
}

std::uint64_t EventProcessingThread::QueueLimitFor(std::uint64_t allowed_memory_kb) {
  const std::uint64_t share = 30 * allowed_memory_kb;
  if (share <= 999'999) return 10'000;
  if (share <= 10'000'099) return share / 100;
  return 100'000;
}

void EventProcessingThread::Start() {
  if (future_.valid()) throw std::runtime_error("Parsed events processing thread already running");
  {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
    queue_.clear();
  }
  future_ = std::async(std::launch::async, [this] { Run(); });
}

void EventProcessingThread::Stop() {
  if (future_.valid()) ZLOG_INFO("Stopping parsed events processing thread");
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  filled_condition_.notify_all();
  space_condition_.notify_all();
  if (future_.valid()) future_.get();
}

void EventProcessingThread::AddEvents(Events&& events) {
  std::unique_lock lock(mutex_);
  if (queue_.size() >= max_queue_events_ && !stopping_) {
    ZLOG_WARNING("Processing queue threshold hit. Stopped adding events to que");
    space_condition_.wait(lock, [this] { return queue_.empty() || stopping_; });
    ZLOG_INFO("Enabling the processing queue");
  }
  if (stopping_) return;
  if (queue_.empty()) {
    queue_ = std::move(events);
  } else {
    queue_.insert(queue_.end(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
  }
  ZLOG_DEBUG("Audit event processing buffer queue size: " << queue_.size() << " events");
  lock.unlock();
  filled_condition_.notify_one();
}

void EventProcessingThread::Run() {
  ZLOG_DEBUG("Started parsed events processing thread");
  try {
    while (!stopping_) {
      Events batch = TakeBatch();
      if (batch.empty()) {
        RunIdleHousekeeping();
      } else {
        Process(batch);
        space_condition_.notify_all();
      }
    }
  } catch (const std::exception& error) {
    // The rest of the program goes on without events.
    ZLOG_ERROR("Parsed events processing thread has ended: " << error.what());
    throw;
  }
}

EventProcessingThread::Events EventProcessingThread::TakeBatch() {
  std::unique_lock lock(mutex_);
  if (queue_.empty()) {
    clock_.WaitFor(filled_condition_, lock, kIdleInterval, [this] { return !queue_.empty() || stopping_; });
  }
  return std::exchange(queue_, {});
}

void EventProcessingThread::Process(Events& batch) {
  // Stable: a rename over a file is two events of one serial, the delete first.
  std::stable_sort(batch.begin(), batch.end(), HappenedBefore);
  ZLOG_DEBUG("Audit active event processing queue size: " << batch.size() << " events");
  for (std::unique_ptr<edr::Event>& event : batch) {
    if (stopping_) return;
    ProcessOne(std::move(event));
    PauseIfCpuIsHigh();
  }
}

void EventProcessingThread::ProcessOne(std::unique_ptr<edr::Event> event) {
  try {
    rule_engine_.ProcessEvent(std::move(event));
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to process event: " << error.what());
  }
}

void EventProcessingThread::PauseIfCpuIsHigh() {
  if (load_.cpu_usage_percent() <= static_cast<float>(cpu_limit_)) return;
  std::unique_lock lock(mutex_);
  clock_.WaitFor(filled_condition_, lock, kCpuPause, [this] { return stopping_.load(); });
}

void EventProcessingThread::RunIdleHousekeeping() {
  if (stopping_) return;
  try {
    rule_engine_.OnIdle();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Idle housekeeping failed: " << error.what());
  }
}

}  // namespace zagent::audit
