// What routing costs: ProcessEvent for events of files, with few and many rules, with few and many processes in the
// tree; and what a process takes of the heap while it is there.
//
//   rules_bench
//
// Times are the best of a few runs that take turns; instructions are counted by callgrind, in this program again, and
// know no noise. Leaves callgrind's profiles in the current folder. Ends with code 1 when instructions or the heap are
// over their targets.
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/Callgrind.h"
#include "bench/PatientKernel.h"
#include "common/src/util/Log.h"
#include "src/audit/engine/RuleEngine.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/TempFolder.h"

namespace {

using namespace zagent;
using edr::EventType;
using edr::ObjectType;
using Events = std::vector<std::unique_ptr<edr::Event>>;

constexpr int kFewRules = 10;
constexpr int kManyRules = 1'000;
constexpr int kMostRules = 10'000;
constexpr int kFewProcesses = 100;
constexpr int kManyProcesses = 50'000;
constexpr std::size_t kTimedEvents = 20'000;
constexpr std::size_t kCountedEvents = 2'000;
constexpr int kRuns = 7;

constexpr double kMostGrowth = 1.2;
constexpr double kMostBytesPerProcess = 1024;

struct Scale {
  int rules;
  int busy;       // of the rules: those with events, evenly spread
  int processes;  // in the tree; without any nobody has asked for them
};

class Host {
 public:
  explicit Host(const Scale& scale)
      : engine_(kernel_,
                {.agent_pid = kAgent,
                 .agent_path = "/usr/local/bin/the-agent",
                 .audit_backlog_limit = 0,
                 .agent_install_path = "/opt/ostrel/host-warden",
                 .sibling_names = {"ostrel-host-warden", "updated"},
                 .max_resting_events = kResting,
                 .proc_root = no_procfs_.Path()},
                counters_, clock_),
        rules_(scale.rules),
        busy_(scale.busy),
        processes_(std::max(scale.processes, 1)) {
    engine_.RegisterEventHandlers(
        "FIM", [this](const auto&, const edr::Event&) { ++delivered_; }, [] {});
    engine_.AddRules("FIM", PathRules());
    if (scale.processes == 0) return;
    engine_.AddRules("processes", {std::make_shared<const fakes::FakeRule>("processes", ObjectType::Process, "",
                                                                           edr::EventTypes{EventType::ProcessStart})});
    for (int number = 0; number < scale.processes; ++number) engine_.ProcessEvent(StartOf(number));
  }

  // Writes to files below the folders of the rules, by the processes of the tree. The same on each call.
  [[nodiscard]] Events MakeWrites(std::size_t count) const {
    Events events;
    std::minstd_rand random(1);  // the same files in each run
    for (std::size_t i = 0; i < count; ++i) {
      const auto rule = static_cast<int>(random() % static_cast<unsigned>(busy_)) * (rules_ / busy_);
      auto event = std::make_unique<fakes::FakeEvent>(EventType::Write, "Write", FolderOf(rule) + "/data/file");
      const auto number = static_cast<int>(random() % static_cast<unsigned>(processes_));
      event->pid = kFirstPid + number;
      event->image = ImageOf(number);
      event->audit_key = IdOf(rule);
      events.push_back(std::move(event));
    }
    return events;
  }

  void Route(Events& events) {
    for (auto& event : events) engine_.ProcessEvent(std::move(event));
  }
  [[nodiscard]] std::size_t Delivered() const { return delivered_; }

  // The start of the process that has this number in the tree. Of the same depth in each tree: one that all descend
  // from, some that serve, and their children.
  static std::unique_ptr<edr::Event> StartOf(int number) {
    constexpr int kServices = 20;
    const int parent = number < kServices ? 0 : 1 + number % (kServices - 1);
    auto start = std::make_unique<fakes::FakeEvent>();
    start->type = EventType::ProcessStart;
    start->action = "Running";
    start->object_type = ObjectType::Process;
    start->pid = kFirstPid + number;
    start->ppid = number == 0 ? 1 : kFirstPid + parent;
    start->image = ImageOf(number);
    start->cwd = "/var/lib/service-" + std::to_string(number % 100);
    return start;
  }

 private:
  static constexpr int kFirstPid = 5'000'000;  // above all that a kernel gives away: the program itself is not heard
  static constexpr int kAgent = std::numeric_limits<int>::max();
  static constexpr std::size_t kResting = 100;  // beyond it each event that comes sends another one on

  [[nodiscard]] static std::string FolderOf(int rule) {
    return "/srv/department-" + std::to_string(rule % 100) + "/project-" + std::to_string(rule);
  }
  [[nodiscard]] static std::string IdOf(int rule) {
    return "5f0c6a3e-7f5d-4a53-9a0e-" + std::to_string(100'000'000'000 + rule);
  }
  // As records and the disk tell of a program.
  static common::ImageInfo ImageOf(int number) {
    return {"08:01",
            755,
            1000U + static_cast<unsigned>(number % 200),
            "/usr/lib/programs/service-" + std::to_string(number % 200),
            0,
            "root",
            "root",
            0,
            ""};
  }
  [[nodiscard]] edr::EventRuleEngine::Rules PathRules() const {
    edr::EventRuleEngine::Rules rules;
    for (int rule = 0; rule < rules_; ++rule) {
      rules.push_back(fakes::FakeRule::Directory(IdOf(rule), FolderOf(rule), {EventType::Create, EventType::Write}));
    }
    return rules;
  }

  const fakes::TempFolder no_procfs_;
  bench::PatientKernel kernel_;
  fakes::FakeClock clock_;
  audit::IntakeCounters counters_;
  audit::RuleEngine engine_;
  const int rules_;
  const int busy_;
  const int processes_;
  std::size_t delivered_ = 0;
};

// Callgrind counts what happens within, and finds it by its name.
extern "C" __attribute__((noinline)) void OstrelBenchRouted(Host& host, Events& events) {
  host.Route(events);
}

// Routes so many events when as many have gone before, so that one leaves for each that comes.
double NanosecondsPerEvent(Host& host, std::size_t count) {
  Events before = host.MakeWrites(kCountedEvents);
  host.Route(before);
  Events events = host.MakeWrites(count);
  const std::size_t delivered = host.Delivered();
  const auto begin = std::chrono::steady_clock::now();
  OstrelBenchRouted(host, events);
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
  if (host.Delivered() - delivered != count) {
    throw std::runtime_error("of " + std::to_string(count) + " events " + std::to_string(host.Delivered() - delivered) +
                             " were delivered");
  }
  return time.count() / static_cast<double>(count);
}

std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

double BytesPerProcess() {
  Host host(
      {kFewRules, kFewRules, kFewProcesses});  // what is made once, for names of users and the like, has been made
  const std::size_t before = HeapInUse();
  for (int number = kFewProcesses; number < kManyProcesses; ++number) {
    Events start;
    start.push_back(Host::StartOf(number));
    host.Route(start);
  }
  return static_cast<double>(HeapInUse() - before) / (kManyProcesses - kFewProcesses);
}

// ---- the table ------------------------------------------------------------------------------------------------------

struct Case {
  std::string name;
  Scale scale;
  double nanoseconds = std::numeric_limits<double>::max();
  double instructions = 0;
};

// Instructions in user space for an event of the case.
double InstructionsPerEvent(const std::string& program, const Case& measured) {
  const Scale& scale = measured.scale;
  const std::string rules = std::to_string(scale.rules);
  const std::string busy = std::to_string(scale.busy);
  const std::string processes = std::to_string(scale.processes);
  return bench::CountInstructions("'" + program + "' count " + rules + " " + busy + " " + processes,
                                  "OstrelBenchRouted", rules + "." + busy + "." + processes) /
         static_cast<double>(kCountedEvents);
}

bool PrintTarget(const char* name, double figure, double most) {
  std::printf("%-44s %8.2f   at most %8.2f   %s\n", name, figure, most, figure <= most ? "reached" : "MISSED");
  return figure <= most;
}

int RunBenchmark(const std::string& program) {
  std::array<Case, 6> cases = {{{"10 rules", {kFewRules, kFewRules, 0}},
                                {"1,000 rules", {kManyRules, kManyRules, 0}},
                                {"10,000 rules", {kMostRules, kMostRules, 0}},
                                {"10,000 rules, 10 of them busy", {kMostRules, kFewRules, 0}},
                                {"10 rules, 100 processes in the tree", {kFewRules, kFewRules, kFewProcesses}},
                                {"10 rules, 50,000 processes in the tree", {kFewRules, kFewRules, kManyProcesses}}}};
  const auto& [few, many, most, busy, small_tree, large_tree] = cases;
  const double bytes_per_process = BytesPerProcess();
  {
    std::vector<std::unique_ptr<Host>> hosts;
    for (const Case& each : cases) hosts.push_back(std::make_unique<Host>(each.scale));
    for (int run = 0; run < kRuns; ++run) {
      for (std::size_t i = 0; i < cases.size(); ++i) {
        cases[i].nanoseconds = std::min(cases[i].nanoseconds, NanosecondsPerEvent(*hosts[i], kTimedEvents));
      }
    }
  }
  std::printf("%-44s %12s %16s\n", "an event of a file", "ns, best", "instructions");
  for (Case& each : cases) {
    each.instructions = InstructionsPerEvent(program, each);
    std::printf("%-44s %12.0f %16.0f\n", each.name.c_str(), each.nanoseconds, each.instructions);
    std::fflush(stdout);
  }
  const double rules_growth = std::max({many.instructions, most.instructions, busy.instructions}) / few.instructions;
  const double tree_growth = large_tree.instructions / small_tree.instructions;
  std::printf("\nover the fewest of their kind, time: 10,000 rules %.2f, 10 of them busy %.2f, 50,000 processes %.2f\n",
              most.nanoseconds / few.nanoseconds, busy.nanoseconds / few.nanoseconds,
              large_tree.nanoseconds / small_tree.nanoseconds);
  bool passed = PrintTarget("many rules over 10, instructions", rules_growth, kMostGrowth);
  passed = PrintTarget("50,000 processes over 100, instructions", tree_growth, kMostGrowth) && passed;
  passed = PrintTarget("heap of a process without arguments, bytes", bytes_per_process, kMostBytesPerProcess) && passed;
  std::printf("\nrules_growth=%.2f tree_growth=%.2f bytes_per_process=%.0f\n", rules_growth, tree_growth,
              bytes_per_process);
  return passed ? 0 : 1;
}

void InitLog() {
  const std::string config = (std::filesystem::current_path() / "log.properties").string();
  std::ofstream(config) << "logging.loggers.root.channel = file\nlogging.loggers.root.level = information\n"
                           "logging.channels.file.class = FileChannel\nlogging.channels.file.path = rules.log\n";
  common::util::Log::Init("edr", config);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    InitLog();
    if (argc != 5) return RunBenchmark(std::filesystem::canonical("/proc/self/exe"));
    Host host({std::stoi(argv[2]), std::stoi(argv[3]), std::stoi(argv[4])});
    NanosecondsPerEvent(host, kCountedEvents);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "rules_bench: %s\n", error.what());
    return 2;
  }
}
