#pragma once

#include <memory>

#include "src/edr/EventRule.h"
#include "src/ioc/rules/Manifest.h"

namespace zagent::ioc::internal {

// What becomes of a rule of a manifest on this disk, now. Audit reports real objects only, so a rule whose path leads
// through a symbolic link becomes two: of the path as it is written under "<id>-1", and of what that means under the id
// of the manifest, unless the link leads nowhere. Any other rule stays as it is.
[[nodiscard]] Manifest::Rules FollowLinks(const std::shared_ptr<const edr::EventRule>& rule);

}  // namespace zagent::ioc::internal
