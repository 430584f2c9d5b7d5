#include "src/audit/parser/ParserThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "common/src/util/CurrentException.h"
#include "common/src/util/HeapTrim.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"

namespace zagent::audit {
namespace {

constexpr std::uint64_t kMiB = 1'048'576;
constexpr std::size_t kFeedStep = 1'048'576;
// Events are passed on more often than the load is measured: what comes of so many bytes still lies in the processor's
// cache when it comes back to be freed.
constexpr std::size_t kPassOnStep = 262'144;
// What is queued lies in pieces of this size, full but for the last: what grows by doubling, or comes in a few bytes at
// a time, takes up to twice of what counts against the bound.
constexpr std::size_t kPiece = 65'536;
constexpr std::chrono::milliseconds kFlushDelay{100};
constexpr std::chrono::seconds kCpuPause{1};
constexpr std::chrono::milliseconds kGatherTime{5};

ParserThread::Seams ThisMachine(internal::FileContext context, std::uint64_t cpu_limit, std::uint64_t memory_limit,
                                common::util::Clock& clock) {
  if (!context.digests) context.digests = std::make_shared<common::util::DigestCache>(clock);
  context.looks = std::make_shared<internal::DiskLooks>();
  return {internal::MakeEventFactory(context),
          [cpu_limit, memory_limit, &clock] { return common::MakeLoadProbe(cpu_limit, memory_limit, clock); },
          context.looks, [] { std::this_thread::sleep_for(kGatherTime); }};
}

}  // namespace

ParserThread::ParserThread(IOChannel& channel, internal::FileContext context, edr::EventRuleEngine& rule_engine,
                           std::uint64_t cpu_limit, std::uint64_t memory_limit, IntakeReports reports,
                           common::util::Clock& clock)
    : ParserThread(channel, rule_engine, cpu_limit, memory_limit, std::move(reports), clock,
                   ThisMachine(std::move(context), cpu_limit, memory_limit, clock)) {}

ParserThread::ParserThread(IOChannel& channel, edr::EventRuleEngine& rule_engine, std::uint64_t cpu_limit,
                           std::uint64_t memory_limit, IntakeReports reports, common::util::Clock& clock, Seams seams)
    : cpu_limit_(cpu_limit),
      load_(seams.make_load_probe()),
      event_processing_thread_(rule_engine, cpu_limit, memory_limit, reports, clock, seams.make_load_probe()),
      reports_(std::move(reports)),
      limits_(QueueLimitsFor(memory_limit * load_.total_memory_kb)),
      clock_(clock),
      disk_looks_(std::move(seams.disk_looks)),
      let_gather_(std::move(seams.let_gather)),
      parser_(std::move(seams.build_events), reports_.counters) {
  ZLOG_DEBUG("Setting parser queue size to " << limits_.max_bytes / 1024 << " KB");
  channel.SetReadCallback([this](IOChannel::Bytes&& data) { OnData(std::move(data)); });
}

ParserThread::~ParserThread() {
  try {
    Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // Whoever reads the reports has been told.
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
  {
    const std::lock_guard lock(queue_mutex_);
    stopping_ = false;
    closed_ = false;
  }
  try {
    event_processing_thread_.Start();
    future_ = std::async(std::launch::async, [this] { Run(); });
  } catch (...) {
    Close();
    event_processing_thread_.Stop();
    throw;
  }
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
  if (!IsTakingData(data.size())) return;
  queue_bytes_ += data.size();
  ZLOG_DEBUG("Audit parser queue size: " << queue_bytes_ / 1024 << " KB");
  // The parser sleeps on an empty queue only.
  const bool was_empty = queue_.empty();
  Queue(std::move(data));
  if (was_empty) data_condition_.notify_one();
}

bool ParserThread::IsTakingData(std::size_t size) {
  if (closed_) {
    reports_.counters.Add(IntakeCounters::Reason::BytesAtStop, size);
    return false;
  }
  const std::uint64_t waiting = queue_bytes_;
  if (!queue_disabled_ && waiting >= limits_.max_bytes) {
    ZLOG_WARNING("Audit parser queue threshold hit. Disabling queueing of events.");
    queue_disabled_ = true;
  }
  if (queue_disabled_) {
    if (waiting > limits_.resume_bytes) {
      reports_.counters.Add(IntakeCounters::Reason::BytesAtBound, size);
      return false;
    }
    queue_disabled_ = false;
    ZLOG_INFO("Enabling the audit parser queue");
    if (reports_.resumed) reports_.resumed();
  }
  return true;
}

void ParserThread::Queue(IOChannel::Bytes&& data) {
  // A full burst is a piece as it is.
  if (data.size() == kPiece && data.capacity() == kPiece) {
    if (!queue_.empty()) queue_.back().shrink_to_fit();
    queue_.push_back(std::move(data));
    return;
  }
  std::size_t queued = 0;
  while (queued < data.size()) {
    if (queue_.empty() || queue_.back().size() == kPiece) queue_.emplace_back().reserve(kPiece);
    IOChannel::Bytes& last = queue_.back();
    const std::size_t size = std::min(kPiece - last.size(), data.size() - queued);
    last.insert(last.end(), data.data() + queued, data.data() + queued + size);
    queued += size;
  }
}

void ParserThread::Run() {
  common::util::NameThisThread("edr-parser");
  ZLOG_INFO("Started Audit Parser Thread");
  try {
    RunUntilStopped();
  } catch (...) {
    const std::string cause = "Audit Parser Thread: " + common::util::DescribeCurrentException();
    Close();
    reports_.ended(cause);
    throw;
  }
  Close();
}

void ParserThread::Close() {
  Pieces dropped;
  {
    const std::lock_guard lock(queue_mutex_);
    stopping_ = true;
    closed_ = true;
    dropped.swap(queue_);
    // What was still to be fed when the loop ended is among the bytes.
    reports_.counters.Add(IntakeCounters::Reason::BytesAtStop, queue_bytes_.exchange(0));
  }
  // What came of an event may be all that it has.
  ForgetLooks();
  parser_.Flush();
  parser_.GiveUpCutEvents();
  reports_.counters.Add(IntakeCounters::Reason::LeftAtStop, parser_.TakeEvents().size());
}

void ParserThread::RunUntilStopped() {
  while (!stopping_) {
    Pieces data;
    if (TakeData(data)) {
      idle_ = false;
      Feed(data);
      PauseWhileCpuIsHigh();
    } else {
      ForgetLooks();
      parser_.Flush();
      idle_ = true;
      PassEventsOn();
      common::util::FreeKeptBlocks();
    }
  }
}

bool ParserThread::TakeData(Pieces& data) {
  std::unique_lock lock(queue_mutex_);
  const auto ready = [this] { return !queue_.empty() || stopping_; };
  const bool waits = !ready();
  if (idle_) {
    data_condition_.wait(lock, ready);
  } else {
    clock_.WaitFor(data_condition_, lock, kFlushDelay, ready);
  }
  if (waits && let_gather_ && !queue_.empty()) {
    lock.unlock();
    let_gather_();
    lock.lock();
  }
  queue_.swap(data);
  return !data.empty();
}

void ParserThread::Feed(Pieces& data) {
  std::size_t step = 0;
  for (IOChannel::Bytes& piece : data) {
    FeedPiece(piece, step);
    // What does not count against the bound any more takes no memory any more.
    IOChannel::Bytes().swap(piece);
  }
  if (step != 0) EndStep(step);
}

void ParserThread::FeedPiece(const IOChannel::Bytes& piece, std::size_t& step) {
  std::size_t fed = 0;
  while (fed < piece.size() && !stopping_) {
    const std::size_t size = std::min(kFeedStep - step, piece.size() - fed);
    ForgetLooks();
    parser_.Feed(piece.data() + fed, size);
    fed += size;
    step += size;
    queue_bytes_ -= size;
    fed_since_passed_on_ += size;
    // After each step, so that a long queue does not pile up events outside of every bound.
    if (step == kFeedStep) {
      EndStep(step);
    } else if (fed_since_passed_on_ >= kPassOnStep) {
      PassEventsOn();
    }
  }
}

void ParserThread::ForgetLooks() {
  if (disk_looks_) disk_looks_->Forget();
}

void ParserThread::EndStep(std::size_t& step) {
  step = 0;
  PassEventsOn();
  PauseWhileCpuIsHigh();
}

void ParserThread::PassEventsOn() {
  fed_since_passed_on_ = 0;
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
