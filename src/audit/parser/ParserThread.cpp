#include "src/audit/parser/ParserThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit {
namespace {

constexpr std::uint64_t kMiB = 1'048'576;
constexpr std::size_t kFeedStep = 1'048'576;
constexpr std::chrono::milliseconds kFlushDelay{100};
constexpr std::chrono::seconds kCpuPause{1};

ParserThread::Seams ThisMachine(std::shared_ptr<edr::LibMagicWrapper> lib_magic, std::uint64_t cpu_limit,
                                std::uint64_t memory_limit, common::util::Clock& clock) {
  return {internal::MakeEventFactory({std::move(lib_magic), std::make_shared<common::util::DigestCache>(clock)}),
          [cpu_limit, memory_limit, &clock] { return MakeLoadProbe(cpu_limit, memory_limit, clock); }};
}

}  // namespace

ParserThread::ParserThread(IOChannel& channel, std::shared_ptr<edr::LibMagicWrapper> lib_magic,
                           edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit, std::uint64_t memory_limit,
                           common::util::Clock& clock)
    : ParserThread(channel, rule_engine, cpu_limit, memory_limit, clock,
                   ThisMachine(std::move(lib_magic), cpu_limit, memory_limit, clock)) {}

ParserThread::ParserThread(IOChannel& channel, edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                           std::uint64_t memory_limit, common::util::Clock& clock, Seams seams)
    : cpu_limit_(cpu_limit),
      load_(seams.make_load_probe()),
      event_processing_thread_(rule_engine, cpu_limit, memory_limit, clock, seams.make_load_probe()),
      limits_(QueueLimitsFor(memory_limit * load_.total_memory_kb)),
      clock_(clock),
      parser_(std::move(seams.build_events)) {
  ZLOG_DEBUG("Setting parser queue size to " << limits_.max_bytes / 1024 << " KB");
  channel.SetReadCallback([this](IOChannel::Bytes&& data) { OnData(std::move(data)); });
}

ParserThread::~ParserThread() {
  try {
    Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // The threads have logged it.
  }
}

ParserThread::QueueLimits ParserThread::QueueLimitsFor(std::uint64_t budget) {
  if (budget < 20'480'000) return {100 * kMiB, 50 * kMiB};
  if (budget < 209'715'400) {
    const std::uint64_t half_of_the_allowed = (budget / 200) << 10;
    return {half_of_the_allowed, half_of_the_allowed / 2};
  }
  return {1024 * kMiB, 512 * kMiB};
}

void ParserThread::Start() {
  if (future_.valid()) throw std::runtime_error("Audit Parser thread already running");
  stopping_ = false;
  event_processing_thread_.Start();
  future_ = std::async(std::launch::async, [this] { Run(); });
}

void ParserThread::Stop() {
  if (!future_.valid()) return;
  std::exception_ptr second_stage_died_of;
  try {
    event_processing_thread_.Stop();
  } catch (...) {
    second_stage_died_of = std::current_exception();
  }
  ZLOG_INFO("Stopping Audit Parser Thread");
  WakeToStop();
  future_.get();
  if (second_stage_died_of) std::rethrow_exception(second_stage_died_of);
}

void ParserThread::WakeToStop() {
  {
    const std::scoped_lock lock(queue_mutex_, pause_mutex_);
    stopping_ = true;
  }
  data_condition_.notify_all();
  pause_condition_.notify_all();
}

void ParserThread::OnData(IOChannel::Bytes&& data) {
  const std::lock_guard lock(queue_mutex_);
  const std::uint64_t waiting = queue_bytes_;
  if (!queue_disabled_ && waiting >= limits_.max_bytes) {
    ZLOG_WARNING("Audit parser queue threshold hit. Disabling queueing of events.");
    queue_disabled_ = true;
  }
  if (queue_disabled_) {
    if (waiting > limits_.resume_bytes) return;
    queue_disabled_ = false;
    ZLOG_INFO("Enabling the audit parser queue");
  }
  queue_bytes_ += data.size();
  ZLOG_DEBUG("Audit parser queue size: " << queue_bytes_ / 1024 << " KB");
  if (queue_.empty()) {
    queue_ = std::move(data);
  } else {
    queue_.insert(queue_.end(), data.begin(), data.end());
  }
  data_condition_.notify_one();
}

void ParserThread::Run() {
  ZLOG_INFO("Started Audit Parser Thread");
  try {
    RunUntilStopped();
  } catch (const std::exception& error) {
    // The rest of the program goes on without events.
    ZLOG_ERROR("Audit Parser Thread has ended: " << error.what());
    throw;
  }
}

void ParserThread::RunUntilStopped() {
  while (!stopping_) {
    IOChannel::Bytes data;
    if (TakeData(data)) {
      idle_ = false;
      Feed(data);
      PauseWhileCpuIsHigh();
    } else {
      parser_.Flush();
      idle_ = true;
      PassEventsOn();
    }
  }
}

bool ParserThread::TakeData(IOChannel::Bytes& data) {
  std::unique_lock lock(queue_mutex_);
  const auto ready = [this] { return !queue_.empty() || stopping_; };
  if (idle_) {
    data_condition_.wait(lock, ready);
  } else {
    clock_.WaitFor(data_condition_, lock, kFlushDelay, ready);
  }
  queue_.swap(data);
  return !data.empty();
}

void ParserThread::Feed(const IOChannel::Bytes& data) {
  std::size_t fed = 0;
  while (fed < data.size() && !stopping_) {
    const std::size_t step = std::min(kFeedStep, data.size() - fed);
    parser_.Feed(data.data() + fed, step);
    fed += step;
    queue_bytes_ -= step;
    // After each step, so that one huge read does not pile up events outside of every bound.
    PassEventsOn();
    PauseWhileCpuIsHigh();
  }
  // Bytes that a stop leaves unfed are gone.
  queue_bytes_ -= data.size() - fed;
}

void ParserThread::PassEventsOn() {
  internal::Events events = parser_.TakeEvents();
  if (!events.empty()) event_processing_thread_.AddEvents(std::move(events));
}

void ParserThread::PauseWhileCpuIsHigh() {
  while (!stopping_) {
    const float usage = load_.cpu_usage_percent();
    if (usage <= static_cast<float>(cpu_limit_)) return;
    ZLOG_DEBUG("Audit parser thread: Pausing thread as cpu usage ("
               << usage << ") is higher than configured threshold (" << cpu_limit_ << ")");
    std::unique_lock lock(pause_mutex_);
    clock_.WaitFor(pause_condition_, lock, kCpuPause, [this] { return stopping_.load(); });
  }
}

}  // namespace zagent::audit
