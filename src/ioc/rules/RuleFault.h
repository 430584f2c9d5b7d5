#pragma once

#include <string>
#include <utility>

#include "common/src/util/JsonPlace.h"
#include "src/edr/EventRule.h"

namespace zagent::ioc::internal {

// What is wrong in a rule object, and where in it.
class RuleFault : public edr::EventRuleException {
 public:
  explicit RuleFault(const std::string& reason, common::util::JsonPlace place = {})
      : edr::EventRuleException(reason), place_(std::move(place)) {}
  [[nodiscard]] const common::util::JsonPlace& Place() const { return place_; }

 private:
  common::util::JsonPlace place_;
};

}  // namespace zagent::ioc::internal
