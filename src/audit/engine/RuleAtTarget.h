#pragma once

#include <memory>
#include <string>
#include <utility>

#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// A rule of a folder in whose place stands a link by now, at the folder that the link leads to.
class RuleAtTarget final : public edr::EventRule {
 public:
  // `target` is absolute.
  RuleAtTarget(std::shared_ptr<const edr::EventRule> rule, std::string target)
      : rule_(std::move(rule)), target_(std::move(target)) {}

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override { return rule_->GetDirectoryActions(); }
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override { return rule_->GetFileActions(); }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override { return rule_->GetProcessActions(); }
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override { return rule_->GetNetworkActions(); }
  [[nodiscard]] const std::string& GetId() const override { return rule_->GetId(); }
  [[nodiscard]] const std::string& GetName() const override { return rule_->GetName(); }
  [[nodiscard]] const std::string& GetPath() const override { return target_; }
  [[nodiscard]] edr::ObjectType GetType() const override { return rule_->GetType(); }
  [[nodiscard]] edr::MatchResult Match(const edr::Event& event) const override { return rule_->Match(event); }

 private:
  const std::shared_ptr<const edr::EventRule> rule_;
  const std::string target_;
};

}  // namespace zagent::audit::internal
