#include "bench/IocRoad.h"

#include <magic.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "bench/DaemonRoad.h"
#include "bench/PreparedRoot.h"
#include "src/ioc/Component.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::bench {
namespace {

constexpr const char* kMagic = "/usr/lib/file/magic.mgc";
constexpr const char* kManifest = "/bench/manifest.json";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteManifest(const std::string& settings) {
  WriteFile(kManifest, R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},)" + settings +
                           R"(,"rules":[
      {"ruleId":"srv","ruleType":"Directory","imagePath":"/srv/w","recursiveDepth":"All","notify":{
        "File":["create","delete","rename","write","attribute","read"],"Directory":["create","delete","rename"]}},
      {"ruleId":"processes","ruleType":"Process","notify":{"process":["create","delete"]}},
      {"ruleId":"connections","ruleType":"Network","notify":{"network":["establish","listen"]}}]})");
}

std::size_t CountTold(const std::string& spool) {
  std::size_t count = 0;
  for (const auto& file : std::filesystem::directory_iterator(spool)) {
    com::ostrel::ioc::model::proto::event::IoCEvent batch;
    if (!batch.ParseFromString(ReadFile(file.path()))) throw std::runtime_error("no batch: " + file.path().string());
    count += static_cast<std::size_t>(batch.directoryevent_size() + batch.fileevent_size() + batch.networkevent_size() +
                                      batch.processevent_size());
  }
  return count;
}

// The component's life is within: it judges what it still has at its end.
void RunThrough(const std::string& log, const ioc::TestSection& section) {
  const common::CommonConfig common = DaemonRoad::MakeCommonConfig();
  DaemonRoad road(std::make_shared<edr::LibMagicWrapper>(kMagic, MAGIC_ERROR));
  {
    ioc::Component component(std::chrono::system_clock::now(),
                             std::make_unique<ioc::Config>(common, ioc::ParsedJson(section.Text())), road.Magic(),
                             road.Scheduler(), DaemonRoad::MakeUploader(), road.Engine(), DaemonRoad::kCpuLimit,
                             DaemonRoad::kMemoryLimit, nullptr, road.GetHealth(), "/tmp", road.Digests());
    road.Run(log);
  }
  if (road.GetHealth().GetLost() != 0) {
    throw std::runtime_error(std::to_string(road.GetHealth().GetLost()) + " events were lost");
  }
}

}  // namespace

IntakeCost MeasureIocRoad(const std::string& log, const std::string& settings) {
  const std::string spool = std::string(kResults) + "/ioc-spool";
  std::filesystem::remove_all(spool);
  WriteManifest(settings);
  ioc::TestSection section;
  section.upload_interval = 0;
  section.max_file_size_kb = 1000;
  section.max_disk_size_mb = 1000;
  section.manifests = {kManifest};
  section.event_file_path = spool;
  IntakeCost cost = MeasureCost([&] {
    RunThrough(log, section);
    return std::size_t{0};
  });
  cost.events = CountTold(spool);
  std::filesystem::remove_all(spool);
  return cost;
}

}  // namespace zagent::bench
