#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/ioc/config/Config.h"

namespace zagent::ioc {

// A section "ioc_config" whose settings a test changes before it asks for the text.
struct TestSection {
  unsigned upload_interval = 60;
  std::string service_url = "https://platform.example";
  unsigned max_file_size_kb = 100;
  unsigned max_file_age_sec = 600;
  unsigned max_disk_size_mb = 10;
  std::vector<std::string> manifests;  // of the type "default"
  std::string event_file_path = "events";
  std::string event_file_name = "ioc";
  bool host_quarantined = false;

  [[nodiscard]] std::string Text() const {
    std::string list;
    for (const std::string& path : manifests) {
      list += (list.empty() ? "" : ",") + (R"({"manifest_path":")" + path + R"(","manifest_type":"default"})");
    }
    return R"({"upload_interval":)" + std::to_string(upload_interval) + R"(,"service_url":")" + service_url +
           R"(","max_file_size_kb":)" + std::to_string(max_file_size_kb) + R"(,"max_file_age_sec":)" +
           std::to_string(max_file_age_sec) + R"(,"max_disk_size_mb":)" + std::to_string(max_disk_size_mb) +
           R"(,"manifests":[)" + list + R"(],"event_file_path":")" + event_file_path + R"(","event_file_name":")" +
           event_file_name + R"(","host_quarantined":)" + (host_quarantined ? "true" : "false") + "}";
  }
};

inline rapidjson::Document ParsedJson(const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  if (document.HasParseError()) throw std::invalid_argument("no JSON: " + text);
  return document;
}

// The common configuration of customer "c" and agent "a".
inline std::unique_ptr<common::CommonConfig> MakeCommonConfig(
    const std::string& service_url = "https://platform.example") {
  return std::make_unique<common::CommonConfig>(ParsedJson(
      R"({"agent_id":"a","agent_version":"1","ca_cert_path":"/ca","connection_timeout":1,"customer_id":"c",
            "log_config_file":"/log","proxy_order":0,"request_timeout":1,"service_url":")" +
      service_url +
      R"(","activation_id":"x","environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,
            "ipv4":"","ipv6":"","osname":"","platform":"","agent_install_path":"/opt","sudo_command":"",
            "use_sudo":false})"));
}

}  // namespace zagent::ioc
