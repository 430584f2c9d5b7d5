#pragma once

#include <vector>

#include "src/edr/FilterCriteria.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// Whether a pattern matches the program of the event's parent process or of one above it. Without patterns every event
// matches.
class GlobalCriteria final : public edr::FilterCriteria {
 public:
  // `tree` outlives this object.
  GlobalCriteria(Group group, std::vector<edr::PathGlob> patterns, const TtlProcessTree& tree);

  [[nodiscard]] bool Match(const edr::Event& event) const override;

 private:
  const TtlProcessTree& tree_;
};

}  // namespace zagent::ioc::internal
