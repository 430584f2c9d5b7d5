#include "src/fim/Config.h"

#include <cstddef>
#include <stdexcept>
#include <utility>

#include "common/src/util/UrlScheme.h"

namespace zagent::fim {
namespace {

using common::util::FindMember;

// Reads one section; every answer is "nothing" once a key was missing or of the wrong type.
class SectionReader {
 public:
  explicit SectionReader(const rapidjson::Value& json) : json_(json), valid_(json.IsObject()) {}

  std::uint32_t Uint(const char* key) {
    const rapidjson::Value* member = Find(key);
    if (member != nullptr && member->IsUint()) return member->GetUint();
    valid_ = false;
    return 0;
  }

  std::string Text(const char* key) {
    const rapidjson::Value* member = Find(key);
    if (member != nullptr && member->IsString()) return common::util::ToString(*member);
    valid_ = false;
    return "";
  }

  std::vector<Config::ManifestEntry> Manifests(const char* key) {
    const rapidjson::Value* member = Find(key);
    std::vector<Config::ManifestEntry> entries;
    if (member == nullptr || !member->IsArray()) {
      valid_ = false;
      return entries;
    }
    for (const rapidjson::Value& element : member->GetArray()) {
      SectionReader entry(element);
      entries.push_back({entry.Text("manifest_path"), entry.Text("manifest_type")});
      valid_ = valid_ && entry.IsValid();
    }
    return entries;
  }

  [[nodiscard]] bool IsValid() const { return valid_; }

 private:
  [[nodiscard]] const rapidjson::Value* Find(const char* key) const { return FindMember(json_, key); }

  const rapidjson::Value& json_;
  bool valid_;
};

// The spool puts its files right into its folder: the stem of their names is one path component.
bool IsFileName(const std::string& name) {
  return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

std::string JoinUrl(std::string base, const std::string& path) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  const std::size_t start = path.find_first_not_of('/');
  return base + "/" + (start == std::string::npos ? "" : path.substr(start));
}

}  // namespace

Config::Values Config::Parse(const rapidjson::Value& json, const char* error) {
  SectionReader section(json);
  Values values;
  values.upload_interval = section.Uint("upload_interval");
  values.service_url = section.Text("service_url");
  values.max_file_size_kb = section.Uint("max_file_size_kb");
  values.max_file_age_sec = section.Uint("max_file_age_sec");
  values.max_disk_size_mb = section.Uint("max_disk_size_mb");
  values.manifests = section.Manifests("manifests");
  values.event_file_path = section.Text("event_file_path");
  values.event_file_name = section.Text("event_file_name");
  if (!section.IsValid() || !IsFileName(values.event_file_name) || common::util::HasForeignScheme(values.service_url)) {
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
