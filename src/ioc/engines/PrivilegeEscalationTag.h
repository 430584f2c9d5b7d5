#pragma once

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A logged-in user other than root acts as root.
class PrivilegeEscalationTag final : public Tag {
 public:
  static constexpr const char* kName = "PrivilegeEscalation";

  PrivilegeEscalationTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  // It has no settings of its own.
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;
};

}  // namespace zagent::ioc::internal
