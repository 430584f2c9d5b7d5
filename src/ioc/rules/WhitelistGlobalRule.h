#pragma once

#include <set>
#include <string>

#include "common/src/util/Json.h"
#include "src/edr/EventRule.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/FilterGroups.h"

namespace zagent::ioc::internal {

// A rule of an IOC manifest that keeps quiet about what a trusted program does: the opposite of all others. Nothing is
// asked of the kernel for it. docs/MANIFESTS.md tells its JSON.
class WhitelistGlobalRule final : public edr::EventRule {
 public:
  // Throws edr::EventException "Invalid ruleClass for EDR rule type", and RuleFault for everything else that is wrong
  // in the rule object. `tree` outlives the rule.
  WhitelistGlobalRule(const rapidjson::Value& json, const TtlProcessTree& tree);
  // `other` for another path, tidy.
  WhitelistGlobalRule(const WhitelistGlobalRule& other, const std::string& path);

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override;
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override;
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override;
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override;
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  // Of the program, or of the folder in which it lies.
  [[nodiscard]] const std::string& GetPath() const override { return path_; }
  // What the path is about.
  [[nodiscard]] edr::ObjectType GetType() const override { return edr::ObjectType::Process; }
  [[nodiscard]] edr::EventType GetEventType() const override;
  // RefusedByFilter for an event that is to be kept quiet about, Matched for all others.
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const override;

 private:
  [[nodiscard]] bool IsProgramOf(const edr::Event& event) const;

  std::string id_;
  std::string path_;
  std::string normal_path_;
  std::set<edr::ObjectType> apply_to_;
  FilterGroups exclusion_;
};

}  // namespace zagent::ioc::internal
