// What the audit intake costs: processor time for a recorded log, from standard input, against auparse alone.
//
//   zstd -dc bench/data/audit-82k-events.log.zst | intake_bench
//
// Every figure is user and system time of this process, the best of a few runs of the same input. The files of the log
// do not exist here, so the look-ups of the events fail at once; on the recorded host they would have found a file.
#include <auparse.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/audit/channels/IOChannel.h"
#include "src/audit/parser/AuparseFeed.h"
#include "src/audit/parser/ParserThread.h"

namespace {

using zagent::audit::IOChannel;
using zagent::audit::internal::AuparseFeed;

constexpr std::size_t kFeedStep = 1'048'576;
constexpr std::size_t kBurst = 65'536;
constexpr int kRuns = 3;

struct Cost {
  double user = 0;
  double system = 0;
  std::size_t events = 0;
  [[nodiscard]] double Total() const { return user + system; }
};

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// The cheapest of a few runs; `work` answers how many events it saw.
Cost Measure(const std::function<std::size_t()>& work) {
  Cost best;
  for (int run = 0; run < kRuns; ++run) {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    const std::size_t events = work();
    getrusage(RUSAGE_SELF, &after);
    const Cost cost{Seconds(after.ru_utime) - Seconds(before.ru_utime),
                    Seconds(after.ru_stime) - Seconds(before.ru_stime), events};
    if (run == 0 || cost.Total() < best.Total()) best = cost;
  }
  return best;
}

class NoMagic final : public zagent::edr::LibMagicWrapper {
 public:
  NoMagic() = default;
};

// Stands at the end of the pipeline and counts.
class CountingEngine final : public zagent::edr::EventRuleEngine {
 public:
  void AddRules(const std::string&, Rules) override {}
  void Invalidate() override {}
  void OnIdle() override {}
  void ProcessEvent(std::unique_ptr<zagent::edr::Event>) override {
    const std::lock_guard lock(mutex_);
    ++count_;
    counted_.notify_one();
  }
  // What has come once `count` have, or once nothing has come for a while: on a busy machine a flush can cut an event
  // whose records are still on their way, and bytes beyond the parser's bound are dropped.
  std::size_t AwaitCount(std::size_t count) {
    constexpr std::chrono::seconds kPatience{5};
    std::unique_lock lock(mutex_);
    std::size_t seen = 0;
    do {
      seen = count_;
    } while (!counted_.wait_for(lock, kPatience, [&] { return count_ >= count; }) && count_ != seen);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable counted_;
  std::size_t count_ = 0;
};

// Hands out what it is told to, as the event loop of a channel would.
class ReplayChannel final : public IOChannel {
 public:
  ReplayChannel() : IOChannel(1, 0) {}
  void Deliver(const char* data, std::size_t size) { OnRead(Bytes(data, data + size)); }
};

std::size_t FeedAuparse(const std::string& log) {
  std::size_t events = 0;
  auparse_state_t* state = auparse_init(AUSOURCE_FEED, nullptr);
  auparse_add_callback(
      state, [](auparse_state_t*, auparse_cb_event_t, void* count) { ++*static_cast<std::size_t*>(count); }, &events,
      nullptr);
  for (std::size_t at = 0; at < log.size(); at += kFeedStep) {
    auparse_feed(state, log.data() + at, std::min(kFeedStep, log.size() - at));
  }
  auparse_flush_feed(state);
  auparse_destroy(state);
  return events;
}

std::size_t BuildTypedEvents(const std::string& log) {
  AuparseFeed feed(zagent::audit::internal::MakeEventFactory({std::make_shared<NoMagic>()}));
  std::size_t events = 0;
  for (std::size_t at = 0; at < log.size(); at += kFeedStep) {
    feed.Feed(reinterpret_cast<const unsigned char*>(log.data()) + at, std::min(kFeedStep, log.size() - at));
    events += feed.TakeEvents().size();
  }
  feed.Flush();
  return events + feed.TakeEvents().size();
}

// The next piece that a channel would read: a record (the kernel's socket) or a burst (the dispatcher's).
std::size_t PieceLength(const std::string& log, std::size_t at, bool by_record) {
  if (!by_record) return std::min(kBurst, log.size() - at);
  const std::size_t end = log.find('\n', at);
  return (end == std::string::npos ? log.size() : end + 1) - at;
}

std::size_t RunPipeline(const std::string& log, bool by_record, std::size_t expected) {
  constexpr std::uint64_t kNoCpuLimit = 100;
  constexpr std::uint64_t kMemoryLimit = 50;
  CountingEngine engine;
  ReplayChannel channel;
  zagent::audit::ParserThread parser(channel, std::make_shared<NoMagic>(), engine, kNoCpuLimit, kMemoryLimit);
  parser.Start();
  for (std::size_t at = 0; at < log.size();) {
    const std::size_t length = PieceLength(log, at, by_record);
    channel.Deliver(log.data() + at, length);
    at += length;
  }
  const std::size_t events = engine.AwaitCount(expected);
  parser.Stop();
  return events;
}

void PrintRow(const char* name, const Cost& cost, const Cost& base) {
  std::printf("%-44s %7.3f %7.3f %7.3f %6.2fx %9zu %11.0f\n", name, cost.user, cost.system, cost.Total(),
              cost.Total() / base.Total(), cost.events, static_cast<double>(cost.events) / cost.Total());
}

}  // namespace

int main() {
  std::string log;
  std::vector<char> block(kFeedStep);
  while (const std::size_t length = std::fread(block.data(), 1, block.size(), stdin)) log.append(block.data(), length);
  if (log.empty()) {
    std::fprintf(stderr, "intake_bench: no audit log on standard input\n");
    return 2;
  }
  const auto records = std::count(log.begin(), log.end(), '\n');
  std::printf("%zu bytes, %td records, best of %d runs; seconds of processor time\n\n", log.size(), records, kRuns);
  std::printf("%-44s %7s %7s %7s %7s %9s %11s\n", "", "user", "system", "total", "ratio", "events", "events/s");

  const Cost auparse = Measure([&] { return FeedAuparse(log); });
  PrintRow("auparse_feed, empty callback", auparse, auparse);
  const Cost typed = Measure([&] { return BuildTypedEvents(log); });
  PrintRow("AuparseFeed, typed events", typed, auparse);
  const Cost bursts = Measure([&] { return RunPipeline(log, false, typed.events); });
  PrintRow("both stages, bursts of 64 KiB", bursts, auparse);
  const Cost by_record = Measure([&] { return RunPipeline(log, true, typed.events); });
  PrintRow("both stages, one record a read", by_record, auparse);

  std::printf(
      "\nauparse_cpu_s=%.3f typed_cpu_s=%.3f pipeline_cpu_s=%.3f pipeline_by_record_cpu_s=%.3f "
      "typed_ratio=%.2f pipeline_ratio=%.2f pipeline_by_record_ratio=%.2f records=%td audit_events=%zu "
      "typed_events=%zu\n",
      auparse.Total(), typed.Total(), bursts.Total(), by_record.Total(), typed.Total() / auparse.Total(),
      bursts.Total() / auparse.Total(), by_record.Total() / auparse.Total(), records, auparse.events, typed.events);
  return 0;
}
