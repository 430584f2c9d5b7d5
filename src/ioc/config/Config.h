#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/config/CommonConfig.h"
#include "common/src/config/SectionReader.h"
#include "common/src/util/Json.h"

namespace zagent::ioc {

// The section "ioc_config" of the configuration file. Accessors may be called from every thread; each is a consistent
// read of one setting.
class Config {
 public:
  using ManifestEntry = common::ManifestEntry;

  // Every key is required; throws std::invalid_argument "Ioc::Config: Invalid json". `common` outlives the object.
  Config(const common::CommonConfig& common, const rapidjson::Value& json);

  // True if any value changed; a list of manifests in another order is the same. `event_file_name`, `event_file_path`
  // and `service_url` must be there and keep their values.
  // Throws std::invalid_argument "Ioc::Config::Update: Invalid json" and changes nothing.
  bool Update(const rapidjson::Value& json);

  [[nodiscard]] std::vector<ManifestEntry> GetManifests() const;
  [[nodiscard]] std::string GetEventFilePath() const;
  [[nodiscard]] std::string GetEventFileName() const;
  [[nodiscard]] std::uint32_t GetMaxDiskSizeMb() const;
  [[nodiscard]] std::uint32_t GetMaxFileAgeSec() const;
  [[nodiscard]] std::uint32_t GetMaxFileSizeKb() const;
  [[nodiscard]] std::string GetServiceUrl() const;
  [[nodiscard]] std::uint32_t GetUploadInterval() const;  // seconds
  // Carried as it is into what is told of the agent with each event.
  [[nodiscard]] bool IsHostQuarantined() const;

  [[nodiscard]] const common::CommonConfig& GetCommon() const { return common_; }

  // Of the same length, and each entry of the one is found in the other.
  static bool AreSame(const std::vector<ManifestEntry>& left, const std::vector<ManifestEntry>& right);

 private:
  struct Values {
    std::vector<ManifestEntry> manifests;
    std::uint32_t max_disk_size_mb = 0;
    std::uint32_t max_file_age_sec = 0;
    std::uint32_t max_file_size_kb = 0;
    std::uint32_t upload_interval = 0;
    bool host_quarantined = false;
    std::string event_file_path;
    std::string event_file_name;
    std::string service_url;
  };
  static Values Parse(const rapidjson::Value& json, const char* error);

  template <typename T>
  T Locked(const T& field) const {
    const std::lock_guard lock(mutex_);
    return field;
  }

  const common::CommonConfig& common_;
  mutable std::mutex mutex_;
  Values values_;
};

}  // namespace zagent::ioc
