#pragma once

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A file that is run or loaded again later (`pathRegex`) is made, changed or deleted.
class PersistenceTag final : public Tag {
 public:
  static constexpr const char* kName = "Persistence";

  PersistenceTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;

 private:
  WholeTextPattern paths_;
};

}  // namespace zagent::ioc::internal
