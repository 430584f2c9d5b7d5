#pragma once

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A program that can send files away (`processRegex`) uses the network.
class ExfiltrationTag final : public Tag {
 public:
  static constexpr const char* kName = "Exfiltration";

  ExfiltrationTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;

 private:
  WholeTextPattern programs_;
};

}  // namespace zagent::ioc::internal
