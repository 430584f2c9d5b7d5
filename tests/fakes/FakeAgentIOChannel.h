#pragma once

#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "src/audit/channels/IOChannel.h"

namespace zagent::fakes {

// A parent agent without a socket, for tests and experiments: Start writes a complete configuration file and hands the
// command that names it to the read callback, on the caller's thread.
class FakeAgentIOChannel final : public audit::IOChannel {
 public:
  static constexpr std::size_t kBufferSize = 65'536;

  explicit FakeAgentIOChannel(std::string config_file = "/etc/ostrel/edr.conf")
      : IOChannel(kBufferSize, 0), config_file_(std::move(config_file)) {}

  // Throws std::runtime_error when the file cannot be written.
  void Start() override {
    std::ofstream out(config_file_, std::ios::binary);
    out << Document();
    out.close();
    if (!out) throw std::runtime_error("FakeAgentIOChannel: cannot write " + config_file_);
    const std::string command = R"({"command":"config","config_file":")" + config_file_ + "\"}";
    OnRead(Bytes(command.begin(), command.end()));
  }
  void Stop() override {}

  // A configuration with every key, the optional ones among them.
  static std::string Document() {
    return R"({
      "common_config": {
        "agent_id": "11111111-2222-3333-4444-555555555555", "agent_version": "1.0", "ca_cert_path": "",
        "connection_timeout": 30, "customer_id": "66666666-7777-8888-9999-000000000000",
        "log_config_file": "/etc/ostrel/log.properties", "proxy_order": 0, "request_timeout": 300,
        "service_url": "https://127.0.0.1:8443", "activation_id": "aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee",
        "environment_variables": {}, "agent_effective_uid": 0, "agent_effective_gid": 0,
        "ipv4": "192.0.2.1", "ipv6": "2001:db8::1", "osname": "Debian", "platform": "LINUX",
        "agent_install_path": "/usr/local/ostrel/host-warden", "sudo_command": "", "use_sudo": false,
        "Blackout_Events": [], "proxy_fail_open": false, "fedramp": false, "capi_version": "1.6",
        "hmac_version": "V2", "enable_cgroup": false},
      "fim_config": {
        "upload_interval": 60, "service_url": "/fim/events", "max_file_size_kb": 100, "max_file_age_sec": 600,
        "max_disk_size_mb": 10, "manifests": [], "event_file_path": "events", "event_file_name": "fim-events"},
      "ioc_config": {
        "upload_interval": 60, "service_url": "https://127.0.0.1:8443", "max_file_size_kb": 100, "max_file_age_sec": 600,
        "max_disk_size_mb": 10, "manifests": [], "event_file_path": "events", "event_file_name": "ioc-events",
        "host_quarantined": false},
      "edr_config": {"audit_backlog_limit": 8192, "cpu_limit": 100, "memory_limit": 50},
      "host_warden_pid": )" +
           std::to_string(getppid()) +
           R"(, "host_warden_path": "/usr/local/ostrel/host-warden/bin/ostrel-host-warden"})";
  }

 private:
  std::string config_file_;
};

}  // namespace zagent::fakes
