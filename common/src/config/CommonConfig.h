#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "common/src/util/Json.h"

namespace zagent::common {

// The section "common_config" of the configuration file: what the agent knows of itself and how to reach the service.
// Read-only once built, but for the activation id. Accessors may be called from every thread.
class CommonConfig {
 public:
  // Throws std::invalid_argument "CommonConfig: Invalid json" when a key is missing or of the wrong type; an optional
  // key of the wrong type logs its own line first.
  explicit CommonConfig(const rapidjson::Value& json);

  [[nodiscard]] std::string GetAgentId() const;
  [[nodiscard]] std::string GetAgentVersion() const;
  [[nodiscard]] std::string GetCaCertPath() const;
  [[nodiscard]] std::uint64_t GetConnectionTimeout() const;
  [[nodiscard]] std::string GetCustomerId() const;
  [[nodiscard]] std::string GetLogConfigFile() const;
  [[nodiscard]] std::uint32_t GetProxyOrder() const;
  [[nodiscard]] std::uint64_t GetRequestTimeout() const;
  [[nodiscard]] std::string GetServiceUrl() const;
  // A secret: the caller cleanses its copy.
  [[nodiscard]] std::string GetActivationId() const;
  // Overwrites it: once the keys exist, nobody needs it.
  void ForgetActivationId();
  [[nodiscard]] std::uint32_t GetAgentEffectiveUid() const;
  [[nodiscard]] std::uint32_t GetAgentEffectiveGid() const;
  [[nodiscard]] std::string GetIpv4() const;
  [[nodiscard]] std::string GetIpv6() const;
  [[nodiscard]] std::string GetOsName() const;
  [[nodiscard]] std::string GetPlatform() const;
  [[nodiscard]] std::string GetAgentInstallPath() const;
  [[nodiscard]] bool IsProxyFailOpen() const;
  [[nodiscard]] bool IsFedramp() const;
  [[nodiscard]] std::string GetCApiVersion() const;
  [[nodiscard]] std::string GetHmacVersion() const;
  [[nodiscard]] bool IsCgroupEnabled() const;
  // The array "Blackout_Events" as JSON text; "[]" when absent.
  [[nodiscard]] std::string GetBlackoutEvents() const;

  // References without the lock: these never change.
  [[nodiscard]] const std::map<std::string, std::string>& GetEnvironmentVariables() const;
  [[nodiscard]] const std::string& GetSudoCommand() const;
  [[nodiscard]] const bool& UseSudo() const;

  [[nodiscard]] bool HasEnvironmentVariable(const std::string& name) const;
  // Throws std::invalid_argument "Environment variable (<name>) not set.".
  [[nodiscard]] std::string GetEnvironmentVariable(const std::string& name) const;

 private:
  template <typename T>
  T Locked(const T& field) const {
    const std::lock_guard lock(mutex_);
    return field;
  }

  mutable std::mutex mutex_;
  std::string agent_id_;
  std::string agent_version_;
  std::string ca_cert_path_;
  std::uint64_t connection_timeout_ = 0;
  std::string customer_id_;
  std::string log_config_file_;
  std::uint32_t proxy_order_ = 0;
  std::uint64_t request_timeout_ = 0;
  std::string service_url_;
  std::string activation_id_;
  std::map<std::string, std::string> environment_variables_;
  std::uint32_t agent_effective_uid_ = 0;
  std::uint32_t agent_effective_gid_ = 0;
  std::string ipv4_;
  std::string ipv6_;
  std::string os_name_;
  std::string platform_;
  std::string agent_install_path_;
  std::string sudo_command_;
  bool use_sudo_ = false;
  std::string blackout_events_ = "[]";
  bool proxy_fail_open_ = false;
  bool fedramp_ = false;
  std::string c_api_version_ = "1.6";
  std::string hmac_version_ = "V2";
  bool enable_cgroup_ = false;
};

}  // namespace zagent::common
