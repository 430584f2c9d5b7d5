#pragma once

#include <vector>

#include "src/edr/FilterCriteria.h"
#include "src/ioc/process/TtlProcessTree.h"

namespace zagent::ioc::internal {

// Whether a pattern matches the program of the actor, or its script: of a process event its parent, of all others the
// process itself. Looks it up in the tree; who is not there matches nothing.
class ProcessCriteria final : public edr::FilterCriteria {
 public:
  // `tree` outlives this object.
  ProcessCriteria(Group group, std::vector<edr::PathGlob> patterns, const TtlProcessTree& tree);

  [[nodiscard]] bool Match(const edr::Event& event) const override;

 private:
  const TtlProcessTree& tree_;
};

}  // namespace zagent::ioc::internal
