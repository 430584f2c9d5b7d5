#pragma once

#include <magic.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/src/util/Json.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {

// A complete configuration in a folder of its own, to be bent by a test: the configuration file, a log property file
// and a manifest that watches one folder.
class ExampleConfig {
 public:
  ExampleConfig() {
    std::filesystem::create_directories(Watched());
    std::filesystem::create_directories(folder_ / "spool");
    WriteLogProperties("trace");
    WriteManifest(R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [
      {"ruleId": "watched-folder", "ruleType": "directory", "imagePath": ")" +
                  Watched() + R"(",
       "recursiveDepth": "all", "notify": ["read", "create", "delete", "rename", "modifyContent", "modifyMetadata"]}
    ]}}})");
    common::util::ParseJson(json_, R"({
      "common_config": {
        "agent_id": "11111111-2222-3333-4444-555555555555", "agent_version": "1.0", "ca_cert_path": "",
        "connection_timeout": 5, "customer_id": "customer", "log_config_file": ")" +
                                       LogProperties() + R"(",
        "proxy_order": 0, "request_timeout": 10, "service_url": "https://127.0.0.1:1", "activation_id": "activation",
        "environment_variables": {}, "agent_effective_uid": 0, "agent_effective_gid": 0, "ipv4": "", "ipv6": "",
        "osname": "Debian", "platform": "LINUX", "agent_install_path": ")" +
                                       folder_.Path() + R"(",
        "sudo_command": "", "use_sudo": false},
      "fim_config": {
        "upload_interval": 1, "service_url": "/fim/events", "max_file_size_kb": 100, "max_file_age_sec": 1,
        "max_disk_size_mb": 1, "manifests": [{"manifest_path": ")" +
                                       Manifest() + R"(", "manifest_type": "fim"}],
        "event_file_path": ")" + (folder_ / "spool") +
                                       R"(", "event_file_name": "fim-events"},
      "ioc_config": {
        "upload_interval": 1, "service_url": "https://127.0.0.1:1", "max_file_size_kb": 100, "max_file_age_sec": 1,
        "max_disk_size_mb": 1, "manifests": [], "event_file_path": "events", "event_file_name": "ioc-events",
        "host_quarantined": false},
      "edr_config": {"audit_backlog_limit": 8192, "cpu_limit": 100, "memory_limit": 50},
      "host_warden_pid": 1, "host_warden_path": "/usr/local/ostrel/host-warden/bin/ostrel-host-warden"})");
    Write();
  }

  rapidjson::Document& Json() { return json_; }
  void Write() { WriteText(common::util::WriteJson(json_)); }
  void WriteText(const std::string& text) { folder_.Write("edr.json", text); }
  void WriteManifest(const std::string& text) { folder_.Write("manifest.json", text); }
  void WriteLogProperties(const std::string& level) {
    folder_.Write("log.properties",
                  "logging.loggers.root.channel = out\n"
                  "logging.loggers.root.level = " +
                      level +
                      "\n"
                      "logging.loggers.l0.name = edr\n"
                      "logging.loggers.l0.level = " +
                      level +
                      "\n"
                      "logging.channels.out.class = FileChannel\n"
                      "logging.channels.out.path = " +
                      (folder_ / "log/edr.log") +
                      "\n"
                      "logging.channels.out.formatter = plain\n"
                      "logging.formatters.plain.class = PatternFormatter\n"
                      "logging.formatters.plain.pattern = %p: %s: %t\n");
  }

  void Set(const char* section, const char* key, const std::string& value) {
    json_[section][key].SetString(value, json_.GetAllocator());
  }

  [[nodiscard]] std::string File() const { return folder_ / "edr.json"; }
  [[nodiscard]] std::string LogProperties() const { return folder_ / "log.properties"; }
  [[nodiscard]] std::string Manifest() const { return folder_ / "manifest.json"; }
  [[nodiscard]] std::string Watched() const { return folder_ / "watched"; }
  [[nodiscard]] std::string Spool() const { return folder_ / "spool"; }
  [[nodiscard]] std::string ReadLog() const { return folder_.Read("log/edr.log"); }
  [[nodiscard]] const fakes::TempFolder& Folder() const { return folder_; }

 private:
  fakes::TempFolder folder_;
  rapidjson::Document json_;
};

}  // namespace zagent::e2e
