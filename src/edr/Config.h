#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "common/src/util/Json.h"

namespace zagent::edr {

// The section "edr_config": the limits of the audit intake. Accessors may be called from every thread.
class Config {
 public:
  // Throws std::invalid_argument "EDR::Config: Invalid json".
  explicit Config(const rapidjson::Value& json);

  // True if any value changed. Throws std::invalid_argument "EDR::Config::Update: Invalid json" and changes nothing.
  bool Update(const rapidjson::Value& json);

  [[nodiscard]] std::uint32_t GetAuditBacklogLimit() const;  // records
  [[nodiscard]] std::uint32_t GetCpuLimit() const;           // percent of all processors
  [[nodiscard]] std::uint32_t GetMemoryLimit() const;        // percent of total memory
  [[nodiscard]] std::string GetDispatcherSocketPath() const;
  [[nodiscard]] bool HasDispatcherSocketPath() const;
  // Whether the intake sees and survives more than it must: further kernel rules, calls and restarts. False without the
  // key.
  [[nodiscard]] bool HasExtendedCoverage() const;

 private:
  struct Values {
    std::uint32_t audit_backlog_limit = 0;
    std::uint32_t cpu_limit = 0;
    std::uint32_t memory_limit = 0;
    std::string dispatcher_socket_path;
    bool extended_coverage = false;
    bool operator==(const Values&) const = default;
  };
  static Values Parse(const rapidjson::Value& json, const char* error);

  mutable std::mutex mutex_;
  Values values_;
};

}  // namespace zagent::edr
