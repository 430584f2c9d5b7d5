#include "src/edr/Config.h"

#include <stdexcept>

namespace zagent::edr {
namespace {

using common::util::FindMember;

std::uint32_t RequireUnsigned(const rapidjson::Value& json, const char* key, const char* error) {
  const rapidjson::Value* value = FindMember(json, key);
  if (value == nullptr || !value->IsUint()) throw std::invalid_argument(error);
  return value->GetUint();
}

}  // namespace

Config::Config(const rapidjson::Value& json) : values_(Parse(json, "EDR::Config: Invalid json")) {}

bool Config::Update(const rapidjson::Value& json) {
  Values values = Parse(json, "EDR::Config::Update: Invalid json");
  const std::lock_guard lock(mutex_);
  if (values == values_) return false;
  values_ = std::move(values);
  return true;
}

Config::Values Config::Parse(const rapidjson::Value& json, const char* error) {
  if (!json.IsObject()) throw std::invalid_argument(error);
  Values values;
  values.audit_backlog_limit = RequireUnsigned(json, "audit_backlog_limit", error);
  values.cpu_limit = RequireUnsigned(json, "cpu_limit", error);
  values.memory_limit = RequireUnsigned(json, "memory_limit", error);
  if (const rapidjson::Value* path = FindMember(json, "dispatcher_socket_path")) {
    if (!path->IsString()) throw std::invalid_argument(error);
    values.dispatcher_socket_path = common::util::ToString(*path);
  }
  if (const rapidjson::Value* extended = FindMember(json, "extended_coverage")) {
    if (!extended->IsBool()) throw std::invalid_argument(error);
    values.extended_coverage = extended->GetBool();
  }
  return values;
}

std::uint32_t Config::GetAuditBacklogLimit() const {
  const std::lock_guard lock(mutex_);
  return values_.audit_backlog_limit;
}

std::uint32_t Config::GetCpuLimit() const {
  const std::lock_guard lock(mutex_);
  return values_.cpu_limit;
}

std::uint32_t Config::GetMemoryLimit() const {
  const std::lock_guard lock(mutex_);
  return values_.memory_limit;
}

std::string Config::GetDispatcherSocketPath() const {
  const std::lock_guard lock(mutex_);
  return values_.dispatcher_socket_path;
}

bool Config::HasDispatcherSocketPath() const {
  return !GetDispatcherSocketPath().empty();
}

bool Config::HasExtendedCoverage() const {
  const std::lock_guard lock(mutex_);
  return values_.extended_coverage;
}

}  // namespace zagent::edr
