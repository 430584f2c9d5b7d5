// What file integrity monitoring costs from record to document: processor time for a recorded log, from standard input,
// through intake, rules, decision, JSON and spool on disk, without and with digests, against auparse alone and against
// laurel, which turns the same log into JSON lines.
//
//   zstd -dc bench/data/audit-82k-events.log.zst | fim_bench
//
// Each measure is a process of its own in a root of its own, which holds the files that the log speaks of; they take
// turns, and each tells the best of its runs. laurel is the one that scripts/bench has unpacked in the current folder.
// Ends with code 1 when documents are missing.
#include <fcntl.h>
#include <libaudit.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/IntakeMeasures.h"
#include "bench/PreparedRoot.h"
#include "bench/RecordedHost.h"
#include "common/src/util/DigestCache.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/parser/ParserThread.h"
#include "src/fim/Component.h"

namespace {

using namespace zagent;
using namespace zagent::bench;
using namespace std::chrono_literals;

constexpr int kRuns = 5;
// Of 82,556 in the log, 72,000 are of files.
constexpr double kLoggedEvents = 82'556;
constexpr std::size_t kFewestDocuments = 71'500;
constexpr double kFewestOverLaurel = 2.0;
constexpr double kFewestHashedOverLaurel = 1.0;

constexpr const char* kLog = "/bench/audit.log";
constexpr const char* kLogConfig = "/bench/log.properties";
constexpr const char* kManifest = "/bench/manifest.json";
constexpr const char* kLaurelConfig = "/bench/laurel.toml";
constexpr const char* kLaurelOutput = "/tmp/laurel";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// ---- in the prepared root -------------------------------------------------------------------------------------------

// Takes every rule and keeps none.
class PatientKernel final : public audit::AuditNetlink {
 public:
  int Open() override { return 3; }
  int Close(int) override { return 0; }
  int SetEnabled(int, std::uint32_t) override { return 1; }
  int SetPid(int, std::uint32_t) override { return 1; }
  int SetBacklogLimit(int, std::uint32_t) override { return 1; }
  int RequestStatus(int) override { return Ask(AUDIT_GET); }
  int RequestRulesList(int) override { return Ask(NLMSG_DONE); }
  int AddRule(int, audit_rule_data*, int, int) override { return 1; }
  int DeleteRule(int, audit_rule_data*, int, int) override { return 1; }
  int GetReply(int, audit_reply& reply) override {
    reply = {};
    reply.type = asked_;
    reply.len = NLMSG_HDRLEN + static_cast<int>(sizeof(status_));
    if (asked_ == AUDIT_GET) reply.status = &status_;
    return reply.len;
  }
  bool WaitReadable(int, std::chrono::milliseconds) override { return true; }

 private:
  int Ask(int type) {
    asked_ = type;
    return 1;
  }
  int asked_ = NLMSG_DONE;
  audit_status status_{};
};

// Nothing is uploaded.
class NoUploader final : public common::Uploader {
 public:
  std::int32_t Upload(const std::string&, const std::vector<unsigned char>&) override { return 1; }
  void Cancel() override {}
  [[nodiscard]] std::string GetTarget() const override { return ""; }
  void SetTarget(const std::string&) override {}
  void SetIndexedHeader(unsigned, const std::string&) override {}
  void SetSource(const common::UploadSource&) override {}
  [[nodiscard]] long LastHttpStatus() const override { return 0; }
  [[nodiscard]] std::string LastCorrelationId() const override { return ""; }
};

class NoHealth final : public health::HealthReporter {
 public:
  void Report(health::HealthStatus) noexcept override {}
  void CountRefused(std::uint64_t documents) noexcept override { refused += documents; }
  void CountDropped(std::uint64_t /*events*/) noexcept override {}
  std::uint64_t refused = 0;
};

// Hands out what it is told to, as the event loop of a channel would.
class ReplayChannel final : public audit::IOChannel {
 public:
  ReplayChannel() : IOChannel(1, 0) {}
  void Deliver(const char* data, std::size_t size) { OnRead(Bytes(data, data + size)); }
};

class NoMagic final : public edr::LibMagicWrapper {
 public:
  NoMagic() = default;
};

std::unique_ptr<fim::Config> MakeConfig(const std::string& spool) {
  rapidjson::Document common;
  common::util::ParseJson(common, R"({"agent_id":"a","agent_version":"1","ca_cert_path":"/ca","connection_timeout":1,
      "customer_id":"c","log_config_file":"/log","proxy_order":0,"request_timeout":1,"service_url":"https://none.example",
      "activation_id":"x","environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,"ipv4":"","ipv6":"",
      "osname":"","platform":"","agent_install_path":"/tmp","sudo_command":"","use_sudo":false})");
  rapidjson::Document section;
  common::util::ParseJson(section, R"({"upload_interval":0,"service_url":"/none","max_file_size_kb":1000,
      "max_file_age_sec":600,"max_disk_size_mb":1000,"manifests":[{"manifest_path":")" +
                                       std::string(kManifest) + R"(","manifest_type":"fim"}],"event_file_path":")" +
                                       spool + R"(","event_file_name":"fim"})");
  return std::make_unique<fim::Config>(common::CommonConfig(common), section);
}

void WriteManifest(bool with_digests) {
  WriteFile(kManifest, std::string(R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":)") +
                           (with_digests ? "true" : "false") + R"(,"rules":[{"ruleId":"srv","ruleType":"directory",
      "imagePath":"/srv/w","recursiveDepth":"all","notify":["read","create","delete","rename","modifyContent",
      "modifyMetadata"]}]}}})");
}

std::size_t CountDocuments(const std::string& spool) {
  std::size_t count = 0;
  for (const auto& file : std::filesystem::directory_iterator(spool)) {
    const std::string text = ReadFile(file.path());
    for (std::size_t at = text.find("\"eventAction\""); at != std::string::npos;
         at = text.find("\"eventAction\"", at + 1)) {
      ++count;
    }
  }
  return count;
}

// The daemon's way of the log, with everything between the channel and the upload.
void RunThrough(const std::string& log, const std::string& spool) {
  constexpr std::size_t kBurst = 65'536;
  audit::internal::FileContext context;
  context.lib_magic = std::make_shared<NoMagic>();
  context.digests = std::make_shared<common::util::DigestCache>();
  context.folders = std::make_shared<audit::internal::FolderIdentities>();
  context.mounts = std::make_shared<audit::internal::MountTable>();
  PatientKernel kernel;
  NoHealth health;
  audit::IntakeCounters counters;
  common::Scheduler scheduler;
  scheduler.Start();
  audit::RuleEngine engine(kernel,
                           {.agent_pid = 1'000'000'000,
                            .agent_path = "/usr/local/bin/the-agent",
                            .audit_backlog_limit = 0,
                            .agent_install_path = "/opt/ostrel/host-warden",
                            .sibling_names = {},
                            .max_resting_events = 100'000,
                            .file_context = std::make_shared<const audit::internal::FileContext>(context)},
                           counters);
  fim::Component component(std::chrono::system_clock::now(), MakeConfig(spool), nullptr, scheduler,
                           std::make_unique<NoUploader>(), engine, 100, 50, nullptr, health, "/tmp", context.digests);
  ReplayChannel channel;
  audit::ParserThread parser(channel, context, engine, 100, 50, {counters, [](const std::string&) {}});
  parser.Start();
  for (std::size_t at = 0; at < log.size(); at += kBurst) {
    channel.Deliver(log.data() + at, std::min(kBurst, log.size() - at));
  }
  while (parser.GetQueuedBytes() != 0 || parser.GetQueuedEvents() != 0 || engine.GetRestingEvents() != 0) {
    std::this_thread::sleep_for(10ms);
  }
  parser.Stop();
  if (health.refused != 0) throw std::runtime_error(std::to_string(health.refused) + " documents were refused");
}

IntakeCost MeasureFim(const std::string& log, bool with_digests) {
  const std::string spool = std::string(kResults) + "/spool";
  std::filesystem::remove_all(spool);
  WriteManifest(with_digests);
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  RunThrough(log, spool);
  getrusage(RUSAGE_SELF, &after);
  const IntakeCost cost{Seconds(after.ru_utime) - Seconds(before.ru_utime),
                        Seconds(after.ru_stime) - Seconds(before.ru_stime), CountDocuments(spool)};
  std::filesystem::remove_all(spool);
  return cost;
}

// laurel with the log as its standard input; counts its lines.
IntakeCost MeasureLaurel() {
  std::filesystem::create_directory(kLaurelOutput);
  WriteFile(kLaurelConfig, std::string("directory = \"") + kLaurelOutput +
                               "\"\nuser = \"root\"\nstatusreport-period = 0\n[auditlog]\nfile = \"audit.log\"\n"
                               "size = 1000000000\ngenerations = 1\n");
  const std::string program = std::string(kResults) + "/laurel/usr/sbin/laurel";
  const pid_t child = fork();
  if (child == 0) {
    const int input = open(kLog, O_RDONLY);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) _exit(126);
    execl(program.c_str(), "laurel", "-c", kLaurelConfig, nullptr);
    _exit(127);
  }
  int status = 0;
  rusage used{};
  if (child < 0 || wait4(child, &status, 0, &used) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(program + " does not end well: status " + std::to_string(status));
  }
  const std::string lines = ReadFile(std::string(kLaurelOutput) + "/audit.log");
  return {Seconds(used.ru_utime), Seconds(used.ru_stime),
          static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'))};
}

void InitLog() {
  WriteFile(kLogConfig,
            "logging.loggers.root.channel = file\nlogging.loggers.root.level = information\n"
            "logging.channels.file.class = FileChannel\nlogging.channels.file.path = /tmp/edr.log\n");
  common::util::Log::Init("edr", kLogConfig);
}

int RunMeasure(const std::string& measure) {
  InitLog();
  const std::string log = ReadFile(kLog);
  IntakeCost cost;
  if (measure == "feed") {
    cost = MeasureAuparse(log);
  } else if (measure == "laurel") {
    cost = MeasureLaurel();
  } else if (measure == "plain" || measure == "hashed") {
    cost = MeasureFim(log, measure == "hashed");
  } else {
    throw std::runtime_error("unknown measure " + measure);
  }
  std::printf("%.6f %.6f %zu\n", cost.user, cost.system, cost.events);
  return 0;
}

// ---- on the machine -------------------------------------------------------------------------------------------------

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

struct Measure {
  const char* name;
  const char* text;
  IntakeCost best;
  std::size_t fewest = 0;
};

void PrintTarget(const char* name, double figure, double fewest) {
  std::printf("%-44s %7.2f  at least %7.2f   %s\n", name, figure, fewest, figure >= fewest ? "reached" : "MISSED");
}

int RunBenchmark() {
  const std::string log(std::istreambuf_iterator<char>(std::cin), {});
  if (log.empty()) throw std::runtime_error("no audit log on standard input");
  std::vector<Measure> measures = {{"feed", "auparse_feed, empty callback", {}},
                                   {"laurel", "laurel, JSON lines", {}},
                                   {"plain", "record to document", {}},
                                   {"hashed", "record to document, with digests", {}}};
  for (int run = 0; run < kRuns; ++run) {
    for (Measure& measure : measures) {
      const IntakeCost cost = Run(measure.name, log);
      measure.fewest = run == 0 ? cost.events : std::min(measure.fewest, cost.events);
      if (run == 0 || cost.Total() < measure.best.Total()) measure.best = cost;
    }
  }
  std::printf(
      "best of %d runs; seconds of processor time, logged events per second of it\n\n%-36s %7s %7s %7s %9s %9s\n",
      kRuns, "", "user", "system", "total", "events/s", "out");
  for (const Measure& measure : measures) {
    std::printf("%-36s %7.3f %7.3f %7.3f %9.0f %9zu\n", measure.text, measure.best.user, measure.best.system,
                measure.best.Total(), kLoggedEvents / measure.best.Total(), measure.fewest);
  }
  const double feed = measures[0].best.Total();
  const double laurel = measures[1].best.Total();
  const double plain = measures[2].best.Total();
  const double hashed = measures[3].best.Total();
  std::printf("\n");
  PrintTarget("events a second over laurel's", laurel / plain, kFewestOverLaurel);
  PrintTarget("the same with digests", laurel / hashed, kFewestHashedOverLaurel);
  const bool complete = std::min(measures[2].fewest, measures[3].fewest) >= kFewestDocuments;
  std::printf("%-44s %7zu  at least %7zu   %s\n", "documents", std::min(measures[2].fewest, measures[3].fewest),
              kFewestDocuments, complete ? "reached" : "MISSED");
  std::printf("\nevents_over_laurel=%.2f hashed_over_laurel=%.2f fim_over_feed=%.2f\n", laurel / plain, laurel / hashed,
              plain / feed);
  return complete ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return argc > 1 ? RunMeasure(argv[1]) : RunBenchmark();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fim_bench: %s\n", error.what());
    return 2;
  }
}
