#include "bench/DaemonRoad.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "bench/PreparedRoot.h"
#include "common/src/util/Json.h"
#include "src/audit/parser/ParserThread.h"

namespace zagent::bench {
namespace {

using namespace std::chrono_literals;

constexpr const char* kLaurelConfig = "/bench/laurel.toml";
constexpr const char* kLaurelOutput = "/tmp/laurel";

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

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

// Hands out what it is told to, as the event loop of a channel would.
class ReplayChannel final : public audit::IOChannel {
 public:
  ReplayChannel() : IOChannel(1, 0) {}
  void Deliver(const char* data, std::size_t size) {
    // Of its own type, which is copied at once instead of byte by byte.
    const auto* bytes = reinterpret_cast<const Bytes::value_type*>(data);
    OnRead(Bytes(bytes, bytes + size));
  }
};

class NoMagic final : public edr::LibMagicWrapper {
 public:
  NoMagic() = default;
};

audit::internal::FileContext MakeContext(std::shared_ptr<edr::LibMagicWrapper> magic) {
  audit::internal::FileContext context;
  context.lib_magic = magic ? std::move(magic) : std::make_shared<NoMagic>();
  context.digests = std::make_shared<common::util::DigestCache>();
  context.folders = std::make_shared<audit::internal::FolderIdentities>();
  context.mounts = std::make_shared<audit::internal::MountTable>();
  return context;
}

}  // namespace

DaemonRoad::DaemonRoad(std::shared_ptr<edr::LibMagicWrapper> magic)
    : context_(MakeContext(std::move(magic))),
      engine_(kernel_,
              {.agent_pid = 1'000'000'000,
               .agent_path = "/usr/local/bin/the-agent",
               .audit_backlog_limit = 0,
               .agent_install_path = "/opt/ostrel/host-warden",
               .sibling_names = {},
               .max_resting_events = 100'000,
               .file_context = std::make_shared<const audit::internal::FileContext>(context_)},
              counters_) {
  scheduler_.Start();
}

std::unique_ptr<common::Uploader> DaemonRoad::MakeUploader() {
  return std::make_unique<NoUploader>();
}

common::CommonConfig DaemonRoad::MakeCommonConfig() {
  rapidjson::Document common;
  common::util::ParseJson(common, R"({"agent_id":"a","agent_version":"1","ca_cert_path":"/ca","connection_timeout":1,
      "customer_id":"c","log_config_file":"/log","proxy_order":0,"request_timeout":1,"service_url":"https://none.example",
      "activation_id":"x","environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,"ipv4":"","ipv6":"",
      "osname":"","platform":"","agent_install_path":"/tmp","sudo_command":"","use_sudo":false})");
  return common::CommonConfig(common);
}

void DaemonRoad::Run(const std::string& log) {
  constexpr std::size_t kBurst = 65'536;
  ReplayChannel channel;
  audit::ParserThread parser(channel, context_, engine_, kCpuLimit, kMemoryLimit,
                             {counters_, [](const std::string&) {}});
  parser.Start();
  for (std::size_t at = 0; at < log.size(); at += kBurst) {
    channel.Deliver(log.data() + at, std::min(kBurst, log.size() - at));
  }
  while (parser.GetQueuedBytes() != 0 || parser.GetQueuedEvents() != 0 || engine_.GetRestingBytes() != 0) {
    std::this_thread::sleep_for(10ms);
  }
  parser.Stop();
}

IntakeCost MeasureLaurel(const std::string& log_file) {
  std::filesystem::create_directory(kLaurelOutput);
  WriteFile(kLaurelConfig, std::string("directory = \"") + kLaurelOutput +
                               "\"\nuser = \"root\"\nstatusreport-period = 0\n[auditlog]\nfile = \"audit.log\"\n"
                               "size = 1000000000\ngenerations = 1\n");
  const std::string program = std::string(kResults) + "/laurel/usr/sbin/laurel";
  const pid_t child = fork();
  if (child == 0) {
    const int input = open(log_file.c_str(), O_RDONLY);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) _exit(126);
    execl(program.c_str(), "laurel", "-c", kLaurelConfig, nullptr);
    _exit(127);
  }
  int status = 0;
  rusage used{};
  if (child < 0 || wait4(child, &status, 0, &used) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(program + " does not end well: status " + std::to_string(status));
  }
  std::ifstream lines(std::string(kLaurelOutput) + "/audit.log", std::ios::binary);
  const std::istreambuf_iterator<char> end;
  return {Seconds(used.ru_utime), Seconds(used.ru_stime),
          static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(lines), end, '\n'))};
}

IntakeCost MeasureCost(const std::function<std::size_t()>& work) {
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  const std::size_t events = work();
  getrusage(RUSAGE_SELF, &after);
  return {Seconds(after.ru_utime) - Seconds(before.ru_utime), Seconds(after.ru_stime) - Seconds(before.ru_stime),
          events};
}

}  // namespace zagent::bench
