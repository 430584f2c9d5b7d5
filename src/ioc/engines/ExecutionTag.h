#pragma once

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A script is run from where programs are dropped (`pathRegex`): by its own name, or as the argument of an interpreter
// (`processRegex`).
class ExecutionTag final : public Tag {
 public:
  static constexpr const char* kName = "Execution";

  ExecutionTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;

 private:
  [[nodiscard]] const std::string* FindScript(const edr::Event& event) const;

  const WholeTextPattern startup_file_option_;
  WholeTextPattern paths_;
  WholeTextPattern programs_;
};

}  // namespace zagent::ioc::internal
