#pragma once

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A program that shows or copies files is started with the path of one that holds credentials (`pathRegex`,
// `processRegex`), or touches one.
class CredentialAccessTag final : public Tag {
 public:
  static constexpr const char* kName = "CredentialAccess";

  CredentialAccessTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;

 private:
  [[nodiscard]] bool CheckStart(const edr::Event& event) const;
  [[nodiscard]] bool CheckAccess(const edr::Event& event) const;

  WholeTextPattern paths_;
  WholeTextPattern programs_;
};

}  // namespace zagent::ioc::internal
