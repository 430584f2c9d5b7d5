#include "src/audit/parser/EventProcessingThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "common/src/util/CurrentException.h"
#include "common/src/util/HeapTrim.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"
#include "src/edr/EventQueueLimit.h"
#include "src/edr/process/EventBytes.h"

namespace zagent::audit {
namespace {

constexpr std::chrono::seconds kIdleInterval{1};
constexpr std::chrono::milliseconds kCpuPause{10};
// What is done with counts against no bound, so that it must be little.
constexpr std::uint64_t kMostHandedBack = 4'194'304;

bool HappenedBefore(const std::unique_ptr<edr::Event>& left, const std::unique_ptr<edr::Event>& right) {
  return std::make_tuple(left->GetTimestamp(), left->GetId()) < std::make_tuple(right->GetTimestamp(), right->GetId());
}

}  // namespace

EventProcessingThread::EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                                             std::uint64_t memory_limit, IntakeReports reports,
                                             common::util::Clock& clock)
    : EventProcessingThread(rule_engine, cpu_limit, memory_limit, std::move(reports), clock,
                            common::MakeLoadProbe(cpu_limit, memory_limit, clock)) {}

EventProcessingThread::EventProcessingThread(edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                                             std::uint64_t memory_limit, IntakeReports reports,
                                             common::util::Clock& clock, common::LoadProbe load)
    : max_queue_events_(edr::EventQueueLimit(memory_limit * load.total_memory_kb / 100)),
      load_(std::move(load)),
      cpu_limit_(cpu_limit),
      rule_engine_(rule_engine),
      reports_(std::move(reports)),
      clock_(clock) {
  ZLOG_DEBUG("Setting processing queue size to " << max_queue_events_ << " events");
}

EventProcessingThread::~EventProcessingThread() {
  try {
    Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // Whoever reads the reports has been told.
  }
}

void EventProcessingThread::Start() {
  if (future_.valid()) throw std::runtime_error("Parsed events processing thread already running");
  {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
  }
  try {
    future_ = std::async(std::launch::async, [this] { Run(); });
  } catch (...) {
    Close();
    throw;
  }
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
  std::uint64_t bytes = 0;
  for (const auto& event : events) bytes += edr::EstimateBytes(*event);
  std::unique_lock lock(mutex_);
  const bool is_full =
      queue_.size() >= max_queue_events_ || queue_bytes_ >= max_queue_events_ * edr::kOrdinaryEventBytes;
  if (is_full && !stopping_) {
    ZLOG_WARNING("Processing queue threshold hit. Stopped adding events to que");
    space_condition_.wait(lock, [this] { return queue_.empty() || stopping_; });
    ZLOG_INFO("Enabling the processing queue");
  }
  if (stopping_) {
    reports_.counters.Add(IntakeCounters::Reason::LeftAtStop, events.size());
    return;
  }
  queued_events_ += events.size();
  queue_bytes_ += bytes;
  held_bytes_ += bytes;
  const bool was_empty = queue_.empty();
  if (was_empty) {
    queue_ = std::move(events);
  } else {
    queue_.insert(queue_.end(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
  }
  events = std::exchange(done_, {});
  ZLOG_DEBUG("Audit event processing buffer queue size: " << queue_.size() << " events");
  lock.unlock();
  // The other thread sleeps on an empty queue only.
  if (was_empty) filled_condition_.notify_one();
}

void EventProcessingThread::Run() {
  common::util::NameThisThread("edr-events");
  ZLOG_DEBUG("Started parsed events processing thread");
  try {
    RunUntilStopped();
  } catch (...) {
    const std::string cause = "Parsed events processing thread: " + common::util::DescribeCurrentException();
    Close();
    reports_.ended(cause);
    DeliverTheRest();
    throw;
  }
  Close();
  DeliverTheRest();
}

void EventProcessingThread::RunUntilStopped() {
  while (!stopping_) {
    Batch batch = TakeBatch();
    if (batch.events.empty()) {
      common::util::FreeKeptBlocks();
      DeliverWhatIsDue();
    } else {
      Process(batch);
      space_condition_.notify_all();
      HandBack(std::move(batch));
    }
  }
}

void EventProcessingThread::Close() {
  Events dropped;
  Events done;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(queue_);
    done.swap(done_);
    held_bytes_ -= std::exchange(queue_bytes_, 0);
  }
  queued_events_ -= dropped.size();
  space_condition_.notify_all();
  reports_.counters.Add(IntakeCounters::Reason::LeftAtStop, dropped.size());
}

void EventProcessingThread::DeliverTheRest() {
  try {
    rule_engine_.OnStop(kLastDelivery);
  } catch (...) {
    ZLOG_ERROR("Last delivery failed: " << common::util::DescribeCurrentException());
  }
}

EventProcessingThread::Batch EventProcessingThread::TakeBatch() {
  Events done;
  std::unique_lock lock(mutex_);
  if (queue_.empty()) {
    clock_.WaitFor(filled_condition_, lock, kIdleInterval, [this] { return !queue_.empty() || stopping_; });
  }
  // In a quiet second nobody comes for them.
  if (queue_.empty()) done.swap(done_);
  return {std::exchange(queue_, {}), std::exchange(queue_bytes_, 0)};
}

void EventProcessingThread::HandBack(Batch batch) {
  if (batch.bytes > kMostHandedBack) return;
  const std::lock_guard lock(mutex_);
  if (done_.empty()) done_ = std::move(batch.events);
}

void EventProcessingThread::Process(Batch& batch) {
  Events& events = batch.events;
  std::size_t processed = 0;
  const auto count_the_left = [&](const Events* left) {
    reports_.counters.Add(IntakeCounters::Reason::LeftAtStop, left->size() - processed);
    queued_events_ -= left->size() - processed;
    for (std::size_t i = processed; i < left->size(); ++i) held_bytes_ -= edr::EstimateBytes(*(*left)[i]);
  };
  // At the end, whether a stop or an exception is it.
  const std::unique_ptr<const Events, decltype(count_the_left)> counted(&events, count_the_left);
  // Nearly every batch is in order. Stable: a rename over a file is two events of one serial, the delete first.
  if (!std::is_sorted(events.begin(), events.end(), HappenedBefore)) {
    std::stable_sort(events.begin(), events.end(), HappenedBefore);
  }
  ZLOG_DEBUG("Audit active event processing queue size: " << events.size() << " events");
  for (std::unique_ptr<edr::Event>& event : events) {
    DeliverWhatIsDue();
    if (stopping_) return;
    ++processed;
    const std::uint64_t bytes = edr::EstimateBytes(*event);
    ProcessOne(std::move(event));
    // What many events hold is free as soon as it counts no more.
    if (batch.bytes > kMostHandedBack) event.reset();
    --queued_events_;
    held_bytes_ -= bytes;
    PauseIfCpuIsHigh();
  }
}

void EventProcessingThread::ProcessOne(std::unique_ptr<edr::Event>&& event) {
  try {
    rule_engine_.ProcessEvent(std::move(event));
  } catch (...) {
    reports_.counters.Add(IntakeCounters::Reason::NotProcessed);
    ZLOG_ERROR("Failed to process event: " << common::util::DescribeCurrentException());
  }
}

void EventProcessingThread::PauseIfCpuIsHigh() {
  if (load_.cpu_usage_percent() <= static_cast<float>(cpu_limit_)) return;
  std::unique_lock lock(mutex_);
  clock_.WaitFor(filled_condition_, lock, kCpuPause, [this] { return stopping_.load(); });
}

void EventProcessingThread::DeliverWhatIsDue() {
  while (!stopping_ && Housekeep()) PauseIfCpuIsHigh();
}

bool EventProcessingThread::Housekeep() {
  try {
    return rule_engine_.OnIdle();
  } catch (...) {
    ZLOG_ERROR("Idle housekeeping failed: " << common::util::DescribeCurrentException());
    return false;
  }
}

}  // namespace zagent::audit
