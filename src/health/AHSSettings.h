#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "common/src/config/CommonConfig.h"

namespace zagent::health {

// Where the statuses go, and how often.
struct AHSSettings {
  static constexpr std::int64_t kUploadInterval = 300;  // seconds

  explicit AHSSettings(const common::CommonConfig& common)
      : service_url(common.GetServiceUrl()), customer_id(common.GetCustomerId()), agent_id(common.GetAgentId()) {}

  // "<service URL>/v1/customer/<customer id>/agent/<agent id>/status"; what would end a part of a path is encoded.
  [[nodiscard]] std::string GetUploadUrl() const;

  std::int64_t upload_interval = kUploadInterval;
  std::string service_url;
  std::string customer_id;
  std::string agent_id;
};

}  // namespace zagent::health
