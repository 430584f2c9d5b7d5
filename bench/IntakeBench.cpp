// What the audit intake costs: processor time, instructions and heap for a recorded log, from standard input, against
// auparse alone.
//
//   zstd -dc bench/data/audit-82k-events.log.zst | intake_bench
//
// Each measure is a process of its own in a root of its own, which holds the files that the log speaks of: look-ups
// find what they found on the recorded machine. The measures take turns, and each tells the best of its runs. Leaves
// callgrind's profiles in the current folder. Ends with code 1 when events are missing or a figure that knows no noise
// is over its target.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/IntakeMeasures.h"
#include "bench/PreparedRoot.h"
#include "bench/RecordedHost.h"
#include "common/src/util/Log.h"

namespace {

using namespace zagent::bench;

// 72,000 events of files, 3,013 execs, 3,013 clones, 3,011 exits and 750 connects; a few of the 81,787 may be cut by a
// flush. The other 750 connects are loopback and no events.
constexpr std::size_t kFewestEvents = 81'700;
constexpr int kRuns = 5;
constexpr int kCountedLines = 60'000;

constexpr double kMostTypedOverFeed = 2.3;
constexpr double kMostPipelineOverFeed = 2.45;
constexpr double kMostNoFilesOverFiles = 1.0;
constexpr double kMostInstructionsOverAuparse = 1.75;
constexpr double kMostBytesPerEvent = 1100;

constexpr const char* kLog = "/bench/audit.log";
constexpr const char* kLogConfig = "/bench/log.properties";
// The program itself: Debian's "valgrind" is a script, and a prepared root has no shell.
constexpr const char* kCallgrind = "/usr/bin/valgrind.bin";
constexpr const char* kCountedFunction = "OstrelBenchCounted";

std::string ReadAll(std::istream& in) {
  return {std::istreambuf_iterator<char>(in), {}};
}

// ---- in the prepared root -------------------------------------------------------------------------------------------

// A logger at the level that is shipped: what is logged below it costs what it costs in the daemon.
void InitLog() {
  WriteFile(kLogConfig,
            "logging.loggers.root.channel = file\nlogging.loggers.root.level = information\n"
            "logging.channels.file.class = FileChannel\nlogging.channels.file.path = /tmp/edr.log\n");
  zagent::common::util::Log::Init("edr", kLogConfig);
}

void Print(const IntakeCost& cost) {
  std::printf("%.6f %.6f %zu\n", cost.user, cost.system, cost.events);
}

int RunMeasure(const std::string& measure, const std::string& argument) {
  InitLog();
  std::ifstream file(kLog, std::ios::binary);
  const std::string log = ReadAll(file);
  if (measure == "feed") {
    Print(MeasureAuparse(log));
  } else if (measure == "typed") {
    Print(MeasureTypedEvents(log));
  } else if (measure == "pipeline") {
    Print(MeasurePipeline(log, Reads::Bursts, std::stoul(argument)));
  } else if (measure == "records") {
    Print(MeasurePipeline(log, Reads::Records, std::stoul(argument)));
  } else if (measure == "heap") {
    std::printf("%.1f\n", HeapOfAnEvent(log));
  } else if (measure == "count") {
    OstrelBenchCounted(log, argument == "typed");
  } else {
    throw std::runtime_error("unknown measure " + measure);
  }
  return 0;
}

// ---- on the machine -------------------------------------------------------------------------------------------------

std::string RunWithFiles(const std::vector<std::string>& command, const std::string& log) {
  return RunInPreparedRoot(command, [&log] {
    CreateRecordedFiles();
    WriteFile(kLog, WithIdentitiesOfThisRoot(log));
  });
}

std::string RunWithoutFiles(const std::vector<std::string>& command, const std::string& log) {
  return RunInPreparedRoot(command, [&log] { WriteFile(kLog, log); });
}

class Best {
 public:
  // Takes over the output of a run if it was cheaper than those before it; events must not differ between runs.
  void Add(const std::string& output) {
    IntakeCost cost;
    if (std::sscanf(output.c_str(), "%lf %lf %zu", &cost.user, &cost.system, &cost.events) != 3) {
      throw std::runtime_error("no figures in: " + output);
    }
    fewest_events_ = runs_ == 0 ? cost.events : std::min(fewest_events_, cost.events);
    if (runs_ == 0 || cost.Total() < cost_.Total()) cost_ = cost;
    ++runs_;
  }
  [[nodiscard]] double Total() const { return cost_.Total(); }
  [[nodiscard]] std::size_t FewestEvents() const { return fewest_events_; }
  void PrintRow(const char* name, const Best& base) const {
    std::printf("%-44s %7.3f %7.3f %7.3f %6.2fx %9zu %11.0f\n", name, cost_.user, cost_.system, Total(),
                Total() / base.Total(), fewest_events_, static_cast<double>(fewest_events_) / Total());
  }

 private:
  IntakeCost cost_;
  std::size_t fewest_events_ = 0;
  int runs_ = 0;
};

std::string FirstLines(const std::string& log, int lines) {
  std::size_t end = 0;
  for (int line = 0; line < lines && end != std::string::npos; ++line) end = log.find('\n', end == 0 ? 0 : end + 1);
  return log.substr(0, end == std::string::npos ? log.size() : end + 1);
}

// Instructions in user space that callgrind counts for one of the two first measures.
double CountInstructions(const char* what, const std::string& log) {
  const std::string name = std::string("callgrind.") + what;
  RunWithFiles(
      {kCallgrind, "--tool=callgrind", "--vgdb=no", "--collect-atstart=no",
       std::string("--toggle-collect=") + kCountedFunction, std::string("--log-file=") + kResults + "/" + name + ".log",
       std::string("--callgrind-out-file=") + kResults + "/" + name + ".out", kProgram, "count", what},
      log);
  std::ifstream file(name + ".log");
  const std::string report = ReadAll(file);
  constexpr std::string_view kCount = "Collected : ";
  const std::size_t at = report.find(kCount);
  if (at == std::string::npos) throw std::runtime_error("no count in " + name + ".log");
  return std::stod(report.substr(at + kCount.size()));
}

struct Figures {
  double typed_over_feed = 0;
  double pipeline_over_feed = 0;
  double nofiles_over_files = 0;
  double instructions_over_auparse = 0;
  double bytes_per_event = 0;
  std::size_t events_built = 0;
};

void MeasureTimes(const std::string& log, Figures& figures) {
  Best feed;
  Best typed;
  Best pipeline;
  Best without_files;
  Best by_record;
  for (int run = 0; run < kRuns; ++run) {
    feed.Add(RunWithFiles({kProgram, "feed"}, log));
    typed.Add(RunWithFiles({kProgram, "typed"}, log));
    const std::string expected = std::to_string(typed.FewestEvents());
    pipeline.Add(RunWithFiles({kProgram, "pipeline", expected}, log));
    by_record.Add(RunWithFiles({kProgram, "records", expected}, log));
    without_files.Add(RunWithoutFiles({kProgram, "typed"}, log));
  }
  std::printf("%-44s %7s %7s %7s %7s %9s %11s\n", "", "user", "system", "total", "ratio", "events", "events/s");
  feed.PrintRow("(a) auparse_feed, empty callback", feed);
  typed.PrintRow("(b) typed, validated events", feed);
  pipeline.PrintRow("(c) both threads, pieces of 64 KiB", feed);
  without_files.PrintRow("(d) as (b), the log's files are not here", feed);
  by_record.PrintRow("    as (c), one record a read", feed);
  figures.typed_over_feed = typed.Total() / feed.Total();
  figures.pipeline_over_feed = pipeline.Total() / feed.Total();
  figures.nofiles_over_files = without_files.Total() / typed.Total();
  figures.events_built = std::min(typed.FewestEvents(), pipeline.FewestEvents());
}

void PrintTarget(const char* name, double figure, double most) {
  std::printf("%-44s %7.2f   at most %7.2f   %s\n", name, figure, most, figure <= most ? "reached" : "MISSED");
}

// Whether the figures that are the same on each run are what they must be.
bool Judge(const Figures& figures) {
  std::printf("\n");
  PrintTarget("typed events over auparse, time", figures.typed_over_feed, kMostTypedOverFeed);
  PrintTarget("both threads over auparse, time", figures.pipeline_over_feed, kMostPipelineOverFeed);
  PrintTarget("without the files over with them, time", figures.nofiles_over_files, kMostNoFilesOverFiles);
  PrintTarget("typed events over auparse, instructions", figures.instructions_over_auparse,
              kMostInstructionsOverAuparse);
  PrintTarget("heap of a queued event, bytes", figures.bytes_per_event, kMostBytesPerEvent);
  const bool complete = figures.events_built >= kFewestEvents;
  std::printf("%-44s %7zu  at least %7zu   %s\n", "events built", figures.events_built, kFewestEvents,
              complete ? "reached" : "MISSED");
  return complete && figures.instructions_over_auparse <= kMostInstructionsOverAuparse &&
         figures.bytes_per_event <= kMostBytesPerEvent;
}

int RunBenchmark() {
  const std::string log = [] {
    std::string text;
    std::vector<char> block(1 << 20);
    while (const std::size_t length = std::fread(block.data(), 1, block.size(), stdin)) {
      text.append(block.data(), length);
    }
    return text;
  }();
  if (log.empty()) throw std::runtime_error("no audit log on standard input");
  std::printf("%zu bytes, %td records, best of %d runs; seconds of processor time\n\n", log.size(),
              std::count(log.begin(), log.end(), '\n'), kRuns);
  std::fflush(stdout);

  Figures figures;
  MeasureTimes(log, figures);
  const std::string counted = FirstLines(log, kCountedLines);
  figures.instructions_over_auparse = CountInstructions("typed", counted) / CountInstructions("feed", counted);
  figures.bytes_per_event = std::stod(RunWithFiles({kProgram, "heap"}, log));
  const bool passed = Judge(figures);
  std::printf(
      "\ntyped_over_feed=%.2f pipeline_over_feed=%.2f nofiles_over_files=%.2f instructions_over_auparse=%.2f "
      "bytes_per_event=%.0f events_built=%zu\n",
      figures.typed_over_feed, figures.pipeline_over_feed, figures.nofiles_over_files,
      figures.instructions_over_auparse, figures.bytes_per_event, figures.events_built);
  return passed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return argc > 1 ? RunMeasure(argv[1], argc > 2 ? argv[2] : "") : RunBenchmark();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "intake_bench: %s\n", error.what());
    return 2;
  }
}
