#pragma once

#include <cstdint>
#include <string>

#include "common/src/util/Json.h"
#include "src/edr/EventRule.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/FilterGroups.h"

namespace zagent::ioc::internal {

// A rule of an IOC manifest for connections and listening sockets. docs/MANIFESTS.md tells its JSON.
class NetworkRule final : public edr::EventRule {
 public:
  // `max_file_size` of the actor's program, in bytes, 0 for no limit. Throws RuleFault with the first thing that is
  // wrong in the rule object. `tree` outlives the rule.
  NetworkRule(const rapidjson::Value& json, std::int64_t max_file_size, const TtlProcessTree& tree);

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override;
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override;
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override;
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override { return actions_; }
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  [[nodiscard]] const std::string& GetPath() const override;
  [[nodiscard]] edr::ObjectType GetType() const override { return edr::ObjectType::Network; }
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const override;

 private:
  std::string id_;
  const std::int64_t max_file_size_;  // bytes; 0: none
  RuleFilters filters_;
  edr::EventTypes actions_;
};

}  // namespace zagent::ioc::internal
