#include "src/ioc/config/Config.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace zagent::ioc {
namespace {

using Manifests = std::vector<Config::ManifestEntry>;

bool HasAllOf(const Manifests& list, const Manifests& entries) {
  return std::ranges::all_of(
      entries, [&](const Config::ManifestEntry& entry) { return std::ranges::find(list, entry) != list.end(); });
}

}  // namespace

bool Config::AreSame(const Manifests& left, const Manifests& right) {
  return left.size() == right.size() && HasAllOf(left, right) && HasAllOf(right, left);
}

Config::Values Config::Parse(const rapidjson::Value& json, const char* error) {
  common::SectionReader section(json);
  Values values;
  values.manifests = section.Manifests("manifests");
  values.max_disk_size_mb = section.Uint("max_disk_size_mb");
  values.max_file_age_sec = section.Uint("max_file_age_sec");
  values.max_file_size_kb = section.Uint("max_file_size_kb");
  values.upload_interval = section.Uint("upload_interval");
  values.host_quarantined = section.Bool("host_quarantined");
  values.event_file_path = section.Text("event_file_path");
  values.event_file_name = section.FileName("event_file_name");
  values.service_url = section.Text("service_url");
  if (!section.IsValid()) throw std::invalid_argument(error);
  return values;
}

Config::Config(const common::CommonConfig& common, const rapidjson::Value& json)
    : common_(common), values_(Parse(json, "Ioc::Config: Invalid json")) {}

bool Config::Update(const rapidjson::Value& json) {
  Values values = Parse(json, "Ioc::Config::Update: Invalid json");
  const std::lock_guard lock(mutex_);
  const auto replaced = [](const Values& of) {
    return std::tie(of.max_disk_size_mb, of.max_file_age_sec, of.max_file_size_kb, of.upload_interval,
                    of.host_quarantined);
  };
  if (replaced(values) == replaced(values_) && AreSame(values.manifests, values_.manifests)) return false;
  values.event_file_path = std::move(values_.event_file_path);
  values.event_file_name = std::move(values_.event_file_name);
  values.service_url = std::move(values_.service_url);
  values_ = std::move(values);
  return true;
}

std::vector<Config::ManifestEntry> Config::GetManifests() const {
  return Locked(values_.manifests);
}

std::string Config::GetEventFilePath() const {
  return Locked(values_.event_file_path);
}

std::string Config::GetEventFileName() const {
  return Locked(values_.event_file_name);
}

std::uint32_t Config::GetMaxDiskSizeMb() const {
  return Locked(values_.max_disk_size_mb);
}

std::uint32_t Config::GetMaxFileAgeSec() const {
  return Locked(values_.max_file_age_sec);
}

std::uint32_t Config::GetMaxFileSizeKb() const {
  return Locked(values_.max_file_size_kb);
}

std::string Config::GetServiceUrl() const {
  return Locked(values_.service_url);
}

std::uint32_t Config::GetUploadInterval() const {
  return Locked(values_.upload_interval);
}

bool Config::IsHostQuarantined() const {
  return Locked(values_.host_quarantined);
}

}  // namespace zagent::ioc
