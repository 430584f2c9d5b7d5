#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "common/src/util/JsonPlace.h"
#include "src/edr/EventRule.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/WhitelistGlobalRule.h"

namespace zagent::ioc::internal {

// Why a document is no manifest, and where in it.
class ManifestException : public std::runtime_error {
 public:
  explicit ManifestException(const std::string& reason, common::util::JsonPlace place = {}, std::string detail = {})
      : std::runtime_error(reason), place_(std::move(place)), detail_(std::move(detail)) {}
  // Of the value in question; of the object in which something is missing.
  [[nodiscard]] const common::util::JsonPlace& Place() const { return place_; }
  // Of a rule that could not be parsed, what is wrong in it; empty for everything else.
  [[nodiscard]] const std::string& Detail() const { return detail_; }

 private:
  common::util::JsonPlace place_;
  std::string detail_;
};

// A manifest for indicators of compromise: what to watch, how to judge it, and where to send what is found.
// docs/MANIFESTS.md tells the format.
class Manifest {
 public:
  using Rules = std::vector<std::shared_ptr<const edr::EventRule>>;
  using WhitelistRules = std::vector<std::shared_ptr<const WhitelistGlobalRule>>;

  // Throws ManifestException when anything in the document is malformed: a manifest holds as a whole or not at all.
  // `tree` outlives the rules.
  Manifest(const rapidjson::Value& document, const TtlProcessTree& tree);

  // Of files, folders, processes and connections, in the order of the document.
  [[nodiscard]] const Rules& GetRules() const { return rules_; }
  [[nodiscard]] const WhitelistRules& GetWhitelistGlobalRules() const { return whitelist_rules_; }
  // An object; empty when tagging is off.
  [[nodiscard]] const rapidjson::Value& GetTaggingSettings() const { return tagging_settings_; }
  [[nodiscard]] bool IsHeuristicsEnabled() const { return is_heuristics_enabled_; }
  [[nodiscard]] bool GetSendMetadata() const { return send_metadata_; }
  [[nodiscard]] const std::vector<std::string>& GetKnownProcessPaths() const { return known_process_paths_; }
  [[nodiscard]] std::uint16_t GetMaxFileSizeToProcess() const { return max_file_size_to_process_; }  // MiB; 0: no limit
  [[nodiscard]] bool HasGatewayUrl() const { return has_gateway_url_; }
  // Throws ManifestException "Gateway URL is not present in the Manifest".
  [[nodiscard]] const std::string& GetGatewayUrl() const;

 private:
  void ParseGlobalSettings(const rapidjson::Value& settings);
  void ParseKnownProcessPaths(const rapidjson::Value& document);
  void ParseTaggingSettings(const rapidjson::Value& document);
  void ParseRules(const rapidjson::Value& document, const TtlProcessTree& tree);
  void ParseRule(const rapidjson::Value& rule, const TtlProcessTree& tree);

  Rules rules_;
  WhitelistRules whitelist_rules_;
  rapidjson::Document tagging_settings_{rapidjson::kObjectType};
  bool is_heuristics_enabled_ = true;
  bool has_gateway_url_ = false;
  std::string gateway_url_;
  std::uint16_t max_file_size_to_process_ = 0;
  bool send_metadata_ = false;
  std::vector<std::string> known_process_paths_;
};

}  // namespace zagent::ioc::internal
