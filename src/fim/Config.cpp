#include "src/fim/Config.h"

#include <cstddef>
#include <stdexcept>
#include <utility>

#include "common/src/util/UrlScheme.h"

namespace zagent::fim {
namespace {

std::string JoinUrl(std::string base, const std::string& path) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  const std::size_t start = path.find_first_not_of('/');
  return base + "/" + (start == std::string::npos ? "" : path.substr(start));
}

}  // namespace

Config::Values Config::Parse(const rapidjson::Value& json, const char* error) {
  common::SectionReader section(json);
  Values values;
  values.upload_interval = section.Uint("upload_interval");
  values.service_url = section.Text("service_url");
  values.max_file_size_kb = section.Uint("max_file_size_kb");
  values.max_file_age_sec = section.Uint("max_file_age_sec");
  values.max_disk_size_mb = section.Uint("max_disk_size_mb");
  values.manifests = section.Manifests("manifests");
  values.event_file_path = section.Text("event_file_path");
  values.event_file_name = section.FileName("event_file_name");
  if (!section.IsValid() || common::util::HasForeignScheme(values.service_url)) {
    throw std::invalid_argument(error);
  }
  return values;
}

Config::Config(const common::CommonConfig& common, const rapidjson::Value& json)
    : common_service_url_(common.GetServiceUrl()), values_(Parse(json, "Fim::Config: Invalid json")) {}

bool Config::Update(const rapidjson::Value& json) {
  Values values = Parse(json, "Fim::Config::Update: Invalid json");
  const std::lock_guard lock(mutex_);
  if (values == values_) return false;
  values_ = std::move(values);
  return true;
}

std::uint32_t Config::GetUploadInterval() const {
  return Locked(values_.upload_interval);
}

std::string Config::GetUploadUrl() const {
  std::string url = Locked(values_.service_url);
  return !common::util::UrlScheme(url).empty() ? url : JoinUrl(common_service_url_, url);
}

std::uint32_t Config::GetMaxFileSizeKb() const {
  return Locked(values_.max_file_size_kb);
}

std::uint32_t Config::GetMaxFileAgeSec() const {
  return Locked(values_.max_file_age_sec);
}

std::uint32_t Config::GetMaxDiskSizeMb() const {
  return Locked(values_.max_disk_size_mb);
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

}  // namespace zagent::fim
