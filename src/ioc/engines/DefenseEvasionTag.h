#pragma once

#include <cstdint>
#include <unordered_set>

#include "src/ioc/engines/Tag.h"

namespace zagent::ioc::internal {

// A hidden file is made, changed or deleted, or a file gets a mode that makes it more than it was (`permissions`).
class DefenseEvasionTag final : public Tag {
 public:
  static constexpr const char* kName = "DefenseEvasion";

  DefenseEvasionTag(const TtlProcessTree& tree, const rapidjson::Value& settings);
  void Configure(const rapidjson::Value& settings) override;
  [[nodiscard]] bool Check(const edr::Event& event) const override;

 private:
  // As those of common::ImageInfo: octal digits read as a decimal number.
  using Permissions = std::unordered_set<std::uint32_t>;

  [[nodiscard]] static Permissions DefaultPermissions();
  [[nodiscard]] Permissions ParsePermissions(const rapidjson::Value& settings) const;
  [[nodiscard]] static bool IsHidden(const edr::Event& event);
  [[nodiscard]] bool HasSuspiciousMode(const edr::Event& event) const;
  [[nodiscard]] bool IsSuspicious(const common::ImageInfo* file) const;

  Permissions permissions_;
};

}  // namespace zagent::ioc::internal
