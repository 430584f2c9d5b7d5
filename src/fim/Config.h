#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/config/CommonConfig.h"
#include "common/src/config/SectionReader.h"
#include "common/src/util/Json.h"

namespace zagent::fim {

// The section "fim_config" of the configuration file. Accessors may be called from every thread; each is a consistent
// read of one setting.
class Config {
 public:
  using ManifestEntry = common::ManifestEntry;

  // Takes the service URL from `common`. Every key is required; throws std::invalid_argument
  // "Fim::Config: Invalid json".
  Config(const common::CommonConfig& common, const rapidjson::Value& json);

  // True if any value changed. Throws std::invalid_argument "Fim::Config::Update: Invalid json" and changes nothing.
  bool Update(const rapidjson::Value& json);

  [[nodiscard]] std::uint32_t GetUploadInterval() const;  // seconds
  // `service_url` of this section as it is when it is absolute ("https://..."), else appended to the common one with
  // exactly one slash between them.
  [[nodiscard]] std::string GetUploadUrl() const;
  [[nodiscard]] std::uint32_t GetMaxFileSizeKb() const;
  [[nodiscard]] std::uint32_t GetMaxFileAgeSec() const;
  [[nodiscard]] std::uint32_t GetMaxDiskSizeMb() const;
  [[nodiscard]] std::vector<ManifestEntry> GetManifests() const;
  [[nodiscard]] std::string GetEventFilePath() const;
  [[nodiscard]] std::string GetEventFileName() const;

 private:
  struct Values {
    std::uint32_t upload_interval = 0;
    std::string service_url;
    std::uint32_t max_file_size_kb = 0;
    std::uint32_t max_file_age_sec = 0;
    std::uint32_t max_disk_size_mb = 0;
    std::vector<ManifestEntry> manifests;
    std::string event_file_path;
    std::string event_file_name;
    bool operator==(const Values&) const = default;
  };
  static Values Parse(const rapidjson::Value& json, const char* error);

  template <typename T>
  T Locked(const T& field) const {
    const std::lock_guard lock(mutex_);
    return field;
  }

  const std::string common_service_url_;
  mutable std::mutex mutex_;
  Values values_;
};

}  // namespace zagent::fim
