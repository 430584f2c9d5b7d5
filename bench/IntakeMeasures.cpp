#include "bench/IntakeMeasures.h"

#include <auparse.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "src/audit/channels/IOChannel.h"
#include "src/audit/parser/ParserThread.h"
#include "src/audit/parser/RecordFeed.h"

namespace zagent::bench {
namespace {

using audit::IOChannel;
using audit::internal::Events;
using audit::internal::RecordFeed;

constexpr std::size_t kFeed = 1'048'576;
constexpr std::size_t kBurst = 65'536;
// What the kernel holds back for a reader that is busy: as much as its socket has room for.
constexpr std::uint64_t kAhead = 4'194'304;

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

IntakeCost Measure(const std::function<std::size_t()>& work) {
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  const std::size_t events = work();
  getrusage(RUSAGE_SELF, &after);
  return {Seconds(after.ru_utime) - Seconds(before.ru_utime), Seconds(after.ru_stime) - Seconds(before.ru_stime),
          events};
}

// Calls `take` with each piece of `length` bytes.
template <typename Take>
void InPieces(const std::string& log, std::size_t length, Take take) {
  for (std::size_t at = 0; at < log.size(); at += length) take(log.data() + at, std::min(length, log.size() - at));
}

// Calls `take` with each record.
template <typename Take>
void ByRecord(const std::string& log, Take take) {
  for (std::size_t at = 0; at < log.size();) {
    const std::size_t end = log.find('\n', at);
    const std::size_t length = (end == std::string::npos ? log.size() : end + 1) - at;
    take(log.data() + at, length);
    at += length;
  }
}

class NoMagic final : public edr::LibMagicWrapper {
 public:
  NoMagic() = default;
};

// As the daemon has it, without a database of file types.
audit::internal::FileContext Context() {
  audit::internal::FileContext context;
  context.lib_magic = std::make_shared<NoMagic>();
  context.folders = std::make_shared<audit::internal::FolderIdentities>();
  context.mounts = std::make_shared<audit::internal::MountTable>();
  return context;
}

std::size_t CountTypedEvents(const std::string& log) {
  std::size_t count = 0;
  BuildTypedEvents(log, [&count](Events&& events) { count += events.size(); });
  return count;
}

std::size_t FeedAuparse(const std::string& log) {
  std::size_t events = 0;
  auparse_state_t* state = auparse_init(AUSOURCE_FEED, nullptr);
  auparse_add_callback(
      state, [](auparse_state_t*, auparse_cb_event_t, void* count) { ++*static_cast<std::size_t*>(count); }, &events,
      nullptr);
  InPieces(log, kFeed, [state](const char* data, std::size_t size) { auparse_feed(state, data, size); });
  auparse_flush_feed(state);
  auparse_destroy(state);
  return events;
}

// Stands at the end of the pipeline and counts. Tells only that all have come: a wake-up an event would be its own
// cost.
class CountingEngine final : public edr::EventRuleEngine {
 public:
  explicit CountingEngine(std::size_t expected) : expected_(expected) {}
  void AddRules(const std::string&, Rules) override {}
  void Invalidate() override {}
  bool OnIdle() override { return false; }
  void OnStop(std::chrono::nanoseconds /*time*/) override {}
  void ProcessEvent(std::unique_ptr<edr::Event>&&) override {
    const std::lock_guard lock(mutex_);
    if (++count_ == expected_) complete_.notify_one();
  }
  // How many have come once all have, or after a time in which a busy machine would have been through twice.
  std::size_t Await() {
    constexpr std::chrono::seconds kPatience{60};
    std::unique_lock lock(mutex_);
    complete_.wait_for(lock, kPatience, [this] { return count_ >= expected_; });
    return count_;
  }

 private:
  const std::size_t expected_;
  std::mutex mutex_;
  std::condition_variable complete_;
  std::size_t count_ = 0;
};

// Hands out what it is told to, as the event loop of a channel would.
class ReplayChannel final : public IOChannel {
 public:
  ReplayChannel() : IOChannel(1, 0) {}
  void Deliver(const char* data, std::size_t size) {
    // Of its own type, which is copied at once instead of byte by byte.
    const auto* bytes = reinterpret_cast<const Bytes::value_type*>(data);
    OnRead(Bytes(bytes, bytes + size));
  }
};

std::size_t RunPipeline(const std::string& log, Reads reads, std::size_t expected) {
  constexpr std::uint64_t kNoCpuLimit = 100;
  constexpr std::uint64_t kMemoryLimit = 50;
  CountingEngine engine(expected);
  ReplayChannel channel;
  audit::IntakeCounters counters;
  audit::ParserThread parser(channel, Context(), engine, kNoCpuLimit, kMemoryLimit,
                             {counters, [](const std::string&) {}});
  parser.Start();
  const auto deliver = [&channel, &parser](const char* data, std::size_t size) {
    while (parser.GetQueuedBytes() > kAhead) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    channel.Deliver(data, size);
  };
  if (reads == Reads::Records) {
    ByRecord(log, deliver);
  } else {
    InPieces(log, kBurst, deliver);
  }
  const std::size_t events = engine.Await();
  parser.Stop();
  return events;
}

std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace

void BuildTypedEvents(const std::string& log, const std::function<void(Events&&)>& keep) {
  audit::IntakeCounters counters;
  auto context = Context();
  context.looks = std::make_shared<audit::internal::DiskLooks>();
  RecordFeed feed(audit::internal::MakeEventFactory(context), counters);
  InPieces(log, kFeed, [&](const char* data, std::size_t size) {
    context.looks->Forget();
    feed.Feed(reinterpret_cast<const unsigned char*>(data), size);
    keep(feed.TakeEvents());
  });
  feed.Flush();
  keep(feed.TakeEvents());
}

IntakeCost MeasureAuparse(const std::string& log) {
  return Measure([&log] { return FeedAuparse(log); });
}

IntakeCost MeasureTypedEvents(const std::string& log) {
  return Measure([&log] { return CountTypedEvents(log); });
}

IntakeCost MeasurePipeline(const std::string& log, Reads reads, std::size_t expected) {
  return Measure([&log, reads, expected] { return RunPipeline(log, reads, expected); });
}

double HeapOfAnEvent(const std::string& log) {
  // What is made once (names of users, tables of the library) is no event's; the first round has made it.
  Events held;
  held.reserve(CountTypedEvents(log));
  const std::size_t before = HeapInUse();
  BuildTypedEvents(log, [&held](Events&& events) {
    held.insert(held.end(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
  });
  const std::size_t after = HeapInUse();
  return static_cast<double>(after - before) / static_cast<double>(held.size());
}

}  // namespace zagent::bench

void OstrelBenchCounted(const std::string& log, bool typed) {
  if (typed) {
    zagent::bench::CountTypedEvents(log);
  } else {
    zagent::bench::FeedAuparse(log);
  }
}
