// What file integrity monitoring costs from record to document: processor time for a recorded log, from standard input,
// through intake, rules, decision, JSON and spool on disk, without and with digests, against auparse alone and against
// laurel, which turns the same log into JSON lines.
//
//   zstd -dc bench/data/audit-82k-events.log.zst | fim_bench
//
// Each measure is a process of its own in a root of its own, which holds the files that the log speaks of; they take
// turns, and each tells the best of its runs. laurel is the one that scripts/bench has unpacked in the current folder.
// Ends with code 1 when documents are missing.

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
#include <vector>

#include "bench/DaemonRoad.h"
#include "bench/IntakeMeasures.h"
#include "bench/PreparedRoot.h"
#include "bench/RecordedHost.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "src/fim/Component.h"

namespace {

using namespace zagent;
using namespace zagent::bench;

constexpr int kRuns = 5;
// Of 82,556 in the log, 72,000 are of files.
constexpr double kLoggedEvents = 82'556;
constexpr std::size_t kFewestDocuments = 71'500;
constexpr double kFewestOverLaurel = 2.0;
constexpr double kFewestHashedOverLaurel = 1.0;

constexpr const char* kLog = "/bench/audit.log";
constexpr const char* kLogConfig = "/bench/log.properties";
constexpr const char* kManifest = "/bench/manifest.json";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// ---- in the prepared root -------------------------------------------------------------------------------------------

std::unique_ptr<fim::Config> MakeConfig(const std::string& spool) {
  rapidjson::Document section;
  common::util::ParseJson(section, R"({"upload_interval":0,"service_url":"/none","max_file_size_kb":1000,
      "max_file_age_sec":600,"max_disk_size_mb":1000,"manifests":[{"manifest_path":")" +
                                       std::string(kManifest) + R"(","manifest_type":"fim"}],"event_file_path":")" +
                                       spool + R"(","event_file_name":"fim"})");
  return std::make_unique<fim::Config>(DaemonRoad::MakeCommonConfig(), section);
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

IntakeCost MeasureFim(const std::string& log, bool with_digests) {
  const std::string spool = std::string(kResults) + "/spool";
  std::filesystem::remove_all(spool);
  WriteManifest(with_digests);
  IntakeCost cost = MeasureCost([&log, &spool] {
    DaemonRoad road;
    {
      fim::Component component(std::chrono::system_clock::now(), MakeConfig(spool), nullptr, road.Scheduler(),
                               DaemonRoad::MakeUploader(), road.Engine(), DaemonRoad::kCpuLimit,
                               DaemonRoad::kMemoryLimit, nullptr, road.GetHealth(), "/tmp", road.Digests());
      road.Run(log);
    }
    if (road.GetHealth().GetLost() != 0) {
      throw std::runtime_error(std::to_string(road.GetHealth().GetLost()) + " documents were lost");
    }
    return std::size_t{0};
  });
  cost.events = CountDocuments(spool);
  std::filesystem::remove_all(spool);
  return cost;
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
    cost = MeasureLaurel(kLog);
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
