// What it costs to judge events of indicators of compromise: the tagging engine's patterns and the heuristics' look-up,
// an event; and the whole road of a recorded log, from standard input, with all engines on, against laurel, which turns
// the same log into JSON lines.
//
//   zstd -dc bench/data/audit-82k-events.log.zst | engines_bench
//
// The roads of the log are processes of their own, each in a root that holds the files which the log speaks of; they
// take turns, and each tells the best of its runs. laurel is the one that scripts/bench has unpacked in the current
// folder. Ends with code 1 when the patterns allocate memory for an event that fits none, or the heuristics for one
// that tells them nothing new, or when the engines let more or fewer events pass than they must.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Allocations.h"
#include "bench/DaemonRoad.h"
#include "bench/IntakeMeasures.h"
#include "bench/IocRoad.h"
#include "bench/PreparedRoot.h"
#include "bench/RecordedHost.h"
#include "common/src/util/Log.h"
#include "src/ioc/engines/HeuristicsEngine.h"
#include "src/ioc/engines/TaggingEngine.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace {

using namespace zagent;
using namespace zagent::bench;
using namespace std::chrono_literals;
using edr::EventType;
using edr::ObjectType;
using Events = std::vector<fakes::FakeEvent>;

constexpr int kRuns = 5;
constexpr double kLoggedEvents = 82'556;
constexpr double kFewestOverLaurel = 1.5;
constexpr std::size_t kTimedEvents = 20'000;
// Of 72,000 events of files, all by one process and of five kinds, ten a kind pass when they are damped.
constexpr std::size_t kFewestDamped = 50;
constexpr std::size_t kMostDamped = 9'000;
constexpr std::size_t kFewestUndamped = 71'500;

constexpr std::array kTags = {"CredentialAccess", "DefenseEvasion", "Execution",
                              "Exfiltration",     "Persistence",    "PrivilegeEscalation"};

constexpr const char* kLog = "/bench/audit.log";

// ---- an engine at a time -------------------------------------------------------------------------------------------

constexpr std::int32_t kFirstPid = 5'000'000;  // above all that a kernel gives away
constexpr int kDepth = 8;                      // of the chain from the actor up to process 1
constexpr int kChains = 100;

// A tree of chains of processes.
class Processes {
 public:
  Processes() {
    tree_.AddEvent(Clone(StartOf(1, 0, "/usr/lib/systemd/systemd")));
    for (int chain = 0; chain < kChains; ++chain) {
      for (int depth = 1; depth < kDepth; ++depth) {
        const std::int32_t pid = PidOf(chain, depth);
        tree_.AddEvent(
            Clone(StartOf(pid, depth == 1 ? 1 : pid - 1, "/usr/lib/programs/service-" + std::to_string(depth))));
        (void)tree_.GetEventsFromCache(pid);
      }
    }
  }

  [[nodiscard]] ioc::TtlProcessTree& Tree() { return tree_; }
  [[nodiscard]] const fakes::FakeClock& Clock() const { return clock_; }
  // Of the last process of a chain.
  [[nodiscard]] static std::int32_t ActorOf(std::size_t number) {
    return PidOf(static_cast<int>(number % kChains), kDepth - 1);
  }

 private:
  static std::unique_ptr<edr::Event> Clone(const edr::Event& event) { return event.Clone(); }
  static std::int32_t PidOf(int chain, int depth) { return kFirstPid + chain * kDepth + depth; }
  static fakes::FakeEvent StartOf(std::int32_t pid, std::int32_t ppid, const std::string& program) {
    fakes::FakeEvent start;
    start.type = EventType::ProcessStart;
    start.action = "Execve";
    start.object_type = ObjectType::Process;
    start.pid = pid;
    start.ppid = ppid;
    start.image = common::ImageInfo(program);
    start.arguments = {program, "--config", "/etc/service-" + std::to_string(pid % 100) + ".conf"};
    return start;
  }

  const fakes::TempFolder no_procfs_;
  fakes::FakeClock clock_;
  ioc::TtlProcessTree tree_{nullptr, 120s, clock_, no_procfs_.Path()};
};

struct EngineCost {
  double nanoseconds = std::numeric_limits<double>::max();  // an event, best of kRuns
  double allocations = 0;                                   // an event, in the last run
};

// When each of the events has been there before.
EngineCost MeasureEngine(ioc::internal::Engine& engine, const Events& events) {
  EngineCost cost;
  for (int run = 0; run <= kRuns; ++run) {
    const std::size_t allocated = CountAllocations();
    const auto begin = std::chrono::steady_clock::now();
    for (const fakes::FakeEvent& event : events) (void)engine.Process(event);
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
    if (run == 0) continue;
    cost.nanoseconds = std::min(cost.nanoseconds, time.count() / static_cast<double>(events.size()));
    cost.allocations = static_cast<double>(CountAllocations() - allocated) / static_cast<double>(events.size());
  }
  return cost;
}

fakes::FakeEvent FileEvent(EventType type, const std::string& action, std::size_t number, const std::string& path,
                           std::uint32_t permission) {
  fakes::FakeEvent event(type, action, path);
  event.pid = Processes::ActorOf(number);
  event.file = common::ImageInfo("08:01", permission, 7, path, 0, "root", "root", 0, "");
  return event;
}

// Events that every pattern must be held against, and that none fits: what fits once is not asked again.
Events EventsOfNoTag() {
  Events events;
  for (std::size_t i = 0; i < kTimedEvents; ++i) {
    const std::string path = "/srv/w/department-" + std::to_string(i % 100) + "/file-" + std::to_string(i) + ".txt";
    switch (i % 5) {
      case 0:
        events.push_back(FileEvent(EventType::Write, "Write", i, path, 640));
        break;
      case 1:
        events.push_back(FileEvent(EventType::Read, "Read", i, path, 640));
        events.back().image = common::ImageInfo("/usr/bin/cat");
        break;
      case 2:
        events.push_back(FileEvent(EventType::Rename, "Rename", i, path, 640));
        events.back().new_file = common::ImageInfo("08:01", 640, 7, path + ".new", 0, "root", "root", 0, "");
        break;
      case 3:
        events.emplace_back(EventType::ProcessStart, "Execve", "");
        events.back().object_type = ObjectType::Process;
        events.back().pid = Processes::ActorOf(i);
        events.back().image = common::ImageInfo("/usr/bin/perl");
        events.back().arguments = {"perl", "-w", path, path + ".out"};
        break;
      default:
        events.emplace_back(EventType::Connect, "Connect", "");
        events.back().object_type = ObjectType::Network;
        events.back().pid = Processes::ActorOf(i);
        events.back().network_address = "192.0.2." + std::to_string(i % 250);
        break;
    }
  }
  return events;
}

EngineCost MeasureTagging() {
  Processes processes;
  const std::string exclusions = R"("exclusions":[{"actorProcess":"/usr/bin/dpkg","patterns":"/var/.*"}])";
  std::string settings;
  for (const char* tag : kTags) settings += std::string(",\"") + tag + R"(":{"score":10,)" + exclusions + "}";
  ioc::internal::TaggingEngine engine(processes.Tree(), ioc::ParsedJson(R"({"thresholdScore":100)" + settings + "}"));
  const EngineCost cost = MeasureEngine(engine, EventsOfNoTag());
  for (std::size_t i = 0; i < kChains; ++i) {
    if (processes.Tree().Get(Processes::ActorOf(i))->GetScore() != 0) throw std::runtime_error("a tag was given");
  }
  return cost;
}

// Of as many kinds as are counted, all of which have been damped at last.
EngineCost MeasureHeuristics() {
  Processes processes;
  Events events;
  for (std::size_t i = 0; i < kTimedEvents; ++i) {
    const std::size_t kind = i * 7'919 % ioc::internal::HeuristicsEngine::kMaxKinds;
    events.push_back(
        FileEvent(EventType::Write, "Write", kind, "/srv/w/department-" + std::to_string(kind) + "/file", 640));
  }
  ioc::internal::HeuristicsEngine engine(processes.Tree(), 3, true, processes.Clock());
  const EngineCost cost = MeasureEngine(engine, events);
  if (engine.Process(events.front()) != ioc::Verdict::Clean) throw std::runtime_error("nothing was damped");
  return cost;
}

// ---- the road of the log, in the prepared root ---------------------------------------------------------------------

// Every process of the log is of a known program, so that it is tagged. One tag is enough to have all told that is not
// damped.
std::string Settings(bool with_heuristics) {
  std::string settings = std::string(R"("heuristicsEnabled":)") + (with_heuristics ? "true" : "false") +
                         R"(,"knownProcessPaths":["/bin/gen","/bin/busybox"],"tags":{"thresholdScore":10)";
  for (const char* tag : kTags) settings += std::string(",\"") + tag + R"(":{"score":10})";
  return settings + "}";
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void InitLog(const std::string& folder) {
  const std::string config = folder + "/log.properties";
  std::ofstream(config) << "logging.loggers.root.channel = file\nlogging.loggers.root.level = warning\n"
                           "logging.channels.file.class = FileChannel\nlogging.channels.file.path = "
                        << folder << "/engines.log\n";
  common::util::Log::Init("edr", config);
}

int RunMeasure(const std::string& measure) {
  InitLog(kResults);
  IntakeCost cost;
  if (measure == "laurel") {
    cost = MeasureLaurel(kLog);
  } else if (measure == "damped" || measure == "undamped") {
    cost = MeasureIocRoad(ReadFile(kLog), Settings(measure == "damped"));
  } else {
    throw std::runtime_error("unknown measure " + measure);
  }
  std::printf("%.6f %.6f %zu\n", cost.user, cost.system, cost.events);
  return 0;
}

// ---- on the machine ------------------------------------------------------------------------------------------------

IntakeCost Run(const char* measure, const std::string& log) {
  const std::string output = RunInPreparedRoot({kProgram, measure}, [&log] {
    CreateRecordedFiles();
    WriteFile(kLog, WithIdentitiesOfThisRoot(log));
  });
  IntakeCost cost;
  if (std::sscanf(output.c_str(), "%lf %lf %zu", &cost.user, &cost.system, &cost.events) != 3) {
    throw std::runtime_error(std::string("no figures of ") + measure + " in: " + output);
  }
  return cost;
}

struct Road {
  const char* name;
  const char* text;
  IntakeCost best;
  std::size_t fewest = 0;
};

bool PrintTarget(const char* name, double figure, const char* word, double target, bool is_reached) {
  std::printf("%-48s %9.2f   %s %8.2f   %s\n", name, figure, word, target, is_reached ? "reached" : "MISSED");
  return is_reached;
}

int RunBenchmark() {
  const std::string log(std::istreambuf_iterator<char>(std::cin), {});
  if (log.empty()) throw std::runtime_error("no audit log on standard input");
  InitLog(std::filesystem::current_path().string());
  std::array<Road, 3> roads = {{{"laurel", "laurel, JSON lines", {}},
                                {"damped", "all engines", {}},
                                {"undamped", "all but the heuristics", {}}}};
  for (int run = 0; run < kRuns; ++run) {
    for (Road& road : roads) {
      const IntakeCost cost = Run(road.name, log);
      road.fewest = run == 0 ? cost.events : std::min(road.fewest, cost.events);
      if (run == 0 || cost.Total() < road.best.Total()) road.best = cost;
    }
  }
  std::printf(
      "best of %d runs; seconds of processor time, logged events per second of it\n\n%-36s %7s %7s %7s %9s %9s\n",
      kRuns, "", "user", "system", "total", "events/s", "out");
  for (const Road& road : roads) {
    std::printf("%-36s %7.3f %7.3f %7.3f %9.0f %9zu\n", road.text, road.best.user, road.best.system, road.best.Total(),
                kLoggedEvents / road.best.Total(), road.fewest);
  }
  const EngineCost tagging = MeasureTagging();
  const EngineCost heuristics = MeasureHeuristics();
  std::printf("\n%-36s %9s %9s %12s\n", "an event", "ns, best", "events/s", "allocations");
  std::printf("%-36s %9.0f %9.0f %12.3f\n", "six tags, none of which fits", tagging.nanoseconds,
              1e9 / tagging.nanoseconds, tagging.allocations);
  std::printf("%-36s %9.0f %9.0f %12.3f\n\n", "heuristics, one of 10,000 kinds", heuristics.nanoseconds,
              1e9 / heuristics.nanoseconds, heuristics.allocations);
  // Times depend on what else the machine does.
  const double over_laurel = roads[0].best.Total() / roads[1].best.Total();
  const double undamped_over_laurel = roads[0].best.Total() / roads[2].best.Total();
  PrintTarget("events a second over laurel's", over_laurel, "at least", kFewestOverLaurel,
              over_laurel >= kFewestOverLaurel);
  PrintTarget("the same without heuristics", undamped_over_laurel, "at least", kFewestOverLaurel,
              undamped_over_laurel >= kFewestOverLaurel);
  const bool is_frugal = heuristics.allocations == 0;
  const bool is_matched_frugally = tagging.allocations == 0;
  const bool is_complete =
      roads[1].fewest >= kFewestDamped && roads[1].fewest <= kMostDamped && roads[2].fewest >= kFewestUndamped;
  if (!is_matched_frugally) std::printf("MISSED: the tags take memory for an event that fits none of them\n");
  if (!is_frugal) std::printf("MISSED: the heuristics take memory for an event that is nothing new\n");
  if (!is_complete) std::printf("MISSED: too few or too many events were told\n");
  std::printf("\nengines_over_laurel=%.2f tag_ns=%.0f heuristics_ns=%.0f\n", over_laurel, tagging.nanoseconds,
              heuristics.nanoseconds);
  return is_matched_frugally && is_frugal && is_complete ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return argc > 1 ? RunMeasure(argv[1]) : RunBenchmark();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "engines_bench: %s\n", error.what());
    return 2;
  }
}
