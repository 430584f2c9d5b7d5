#pragma once

#include <functional>
#include <memory>
#include <string>

#include "src/edr/EventRule.h"
#include "src/ioc/rules/Manifest.h"

namespace zagent::ioc::internal {

// What becomes of a rule of a manifest on this disk, now. Audit reports real objects only, so a rule whose path leads
// through a symbolic link becomes two: of the path as it is written under "<id>-1", and of what that means under the id
// of the manifest, unless the link leads nowhere. Any other rule stays as it is.
//
// `is_taken` says whether another rule has an id: "<id>-2" is tried then, and so on.
[[nodiscard]] Manifest::Rules FollowLinks(const std::shared_ptr<const edr::EventRule>& rule,
                                          const std::function<bool(const std::string&)>& is_taken);
// In the same way a rule of trusted programs becomes two, both under its id: programs are told by their real paths.
[[nodiscard]] Manifest::WhitelistRules FollowLinks(const std::shared_ptr<const WhitelistGlobalRule>& rule);

}  // namespace zagent::ioc::internal
