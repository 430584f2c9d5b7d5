#include "common/src/config/CommonConfig.h"

#include <stdexcept>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Log.h"
#include "common/src/util/UrlScheme.h"

namespace zagent::common {
namespace {

using util::FindMember;

// Reads one section: each Read remembers a failure, so that the checks stand in one list in the order of the keys.
class SectionReader {
 public:
  explicit SectionReader(const rapidjson::Value& json) : json_(json), valid_(json.IsObject()) {}

  [[nodiscard]] bool IsValid() const { return valid_; }

  void Mandatory(const char* key, std::string& field) {
    const rapidjson::Value* value = Find(key);
    if (Check(value != nullptr && value->IsString())) field = util::ToString(*value);
  }

  template <typename Unsigned>
  void Mandatory(const char* key, Unsigned& field) {
    const rapidjson::Value* value = Find(key);
    if (Check(value != nullptr && value->IsUint())) field = value->GetUint();
  }

  void Mandatory(const char* key, bool& field) {
    const rapidjson::Value* value = Find(key);
    if (Check(value != nullptr && value->IsBool())) field = value->GetBool();
  }

  void Mandatory(const char* key, std::map<std::string, std::string>& field) {
    const rapidjson::Value* value = Find(key);
    if (!Check(value != nullptr && value->IsObject())) return;
    for (const auto& member : value->GetObject()) {
      if (Check(member.value.IsString())) field[util::ToString(member.name)] = util::ToString(member.value);
    }
  }

  void Optional(const char* key, bool& field, const char* error) {
    const rapidjson::Value* value = Find(key);
    if (value != nullptr && CheckOptional(value->IsBool(), error)) field = value->GetBool();
  }

  void Optional(const char* key, std::string& field, const char* error) {
    const rapidjson::Value* value = Find(key);
    if (value != nullptr && CheckOptional(value->IsString(), error)) field = util::ToString(*value);
  }

  void OptionalArray(const char* key, std::string& text, const char* error) {
    const rapidjson::Value* value = Find(key);
    if (value != nullptr && CheckOptional(value->IsArray(), error)) text = util::WriteJson(*value);
  }

 private:
  const rapidjson::Value* Find(const char* key) const { return valid_ ? FindMember(json_, key) : nullptr; }

  bool Check(bool holds) {
    valid_ = valid_ && holds;
    return valid_;
  }

  bool CheckOptional(bool holds, const char* error) {
    if (!holds) ZLOG_ERROR(error);
    return Check(holds);
  }

  const rapidjson::Value& json_;
  bool valid_;
};

}  // namespace

CommonConfig::CommonConfig(const rapidjson::Value& json) {
  SectionReader reader(json);
  reader.Mandatory("agent_id", agent_id_);
  reader.Mandatory("agent_version", agent_version_);
  reader.Mandatory("ca_cert_path", ca_cert_path_);
  reader.Mandatory("connection_timeout", connection_timeout_);
  reader.Mandatory("customer_id", customer_id_);
  reader.Mandatory("log_config_file", log_config_file_);
  reader.Mandatory("proxy_order", proxy_order_);
  reader.Mandatory("request_timeout", request_timeout_);
  reader.Mandatory("service_url", service_url_);
  reader.Mandatory("activation_id", activation_id_);
  reader.Mandatory("environment_variables", environment_variables_);
  reader.Mandatory("agent_effective_uid", agent_effective_uid_);
  reader.Mandatory("agent_effective_gid", agent_effective_gid_);
  reader.Mandatory("ipv4", ipv4_);
  reader.Mandatory("ipv6", ipv6_);
  reader.Mandatory("osname", os_name_);
  reader.Mandatory("platform", platform_);
  reader.Mandatory("agent_install_path", agent_install_path_);
  reader.Mandatory("sudo_command", sudo_command_);
  reader.Mandatory("use_sudo", use_sudo_);

  reader.OptionalArray("Blackout_Events", blackout_events_, "Invalid Blackout_Events key, it should be array");
  reader.Optional("proxy_fail_open", proxy_fail_open_, "Invalid proxy_fail_open key, it should be boolean");
  reader.Optional("fedramp", fedramp_, "Invalid fedramp key, it should be boolean");
  reader.Optional("capi_version", c_api_version_, "Invalid capi_version key, it should be string");
  reader.Optional("hmac_version", hmac_version_, "Invalid hamc_version key, it should be string");
  reader.Optional("enable_cgroup", enable_cgroup_, "Invalid enable_cgroup key, it should be boolean");

  if (!reader.IsValid() || util::HasForeignScheme(service_url_))
    throw std::invalid_argument("CommonConfig: Invalid json");
}

std::string CommonConfig::GetAgentId() const {
  return Locked(agent_id_);
}
std::string CommonConfig::GetAgentVersion() const {
  return Locked(agent_version_);
}
std::string CommonConfig::GetCaCertPath() const {
  return Locked(ca_cert_path_);
}
std::uint64_t CommonConfig::GetConnectionTimeout() const {
  return Locked(connection_timeout_);
}
std::string CommonConfig::GetCustomerId() const {
  return Locked(customer_id_);
}
std::string CommonConfig::GetLogConfigFile() const {
  return Locked(log_config_file_);
}
std::uint32_t CommonConfig::GetProxyOrder() const {
  return Locked(proxy_order_);
}
std::uint64_t CommonConfig::GetRequestTimeout() const {
  return Locked(request_timeout_);
}
std::string CommonConfig::GetServiceUrl() const {
  return Locked(service_url_);
}
std::string CommonConfig::GetActivationId() const {
  return Locked(activation_id_);
}
void CommonConfig::ForgetActivationId() {
  const std::lock_guard lock(mutex_);
  util::Cleanse(activation_id_);
}
std::uint32_t CommonConfig::GetAgentEffectiveUid() const {
  return Locked(agent_effective_uid_);
}
std::uint32_t CommonConfig::GetAgentEffectiveGid() const {
  return Locked(agent_effective_gid_);
}
std::string CommonConfig::GetIpv4() const {
  return Locked(ipv4_);
}
std::string CommonConfig::GetIpv6() const {
  return Locked(ipv6_);
}
std::string CommonConfig::GetOsName() const {
  return Locked(os_name_);
}
std::string CommonConfig::GetPlatform() const {
  return Locked(platform_);
}
std::string CommonConfig::GetAgentInstallPath() const {
  return Locked(agent_install_path_);
}
bool CommonConfig::IsProxyFailOpen() const {
  return Locked(proxy_fail_open_);
}
bool CommonConfig::IsFedramp() const {
  return Locked(fedramp_);
}
std::string CommonConfig::GetCApiVersion() const {
  return Locked(c_api_version_);
}
std::string CommonConfig::GetHmacVersion() const {
  return Locked(hmac_version_);
}
bool CommonConfig::IsCgroupEnabled() const {
  return Locked(enable_cgroup_);
}
std::string CommonConfig::GetBlackoutEvents() const {
  return Locked(blackout_events_);
}

const std::map<std::string, std::string>& CommonConfig::GetEnvironmentVariables() const {
  return environment_variables_;
}
const std::string& CommonConfig::GetSudoCommand() const {
  return sudo_command_;
}
const bool& CommonConfig::UseSudo() const {
  return use_sudo_;
}

bool CommonConfig::HasEnvironmentVariable(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return environment_variables_.count(name) != 0;
}

std::string CommonConfig::GetEnvironmentVariable(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = environment_variables_.find(name);
  if (found == environment_variables_.end()) {
    throw std::invalid_argument("Environment variable (" + name + ") not set.");
  }
  return found->second;
}

}  // namespace zagent::common
