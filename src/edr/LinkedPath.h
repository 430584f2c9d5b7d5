#pragma once

#include <optional>
#include <string>

namespace zagent::edr {

// Audit reports real objects only: what a rule's path means on this disk, now. Paths are tidy. A relative
// one, and one of PATH_MAX bytes or more, is the path of nothing: it has no links and means itself.

// Whether the path is a symbolic link or has one among its folders.
[[nodiscard]] bool LeadsThroughLink(const std::string& path);
// What the path means in the end; nothing for a link that leads nowhere. An object that is to come has no links.
[[nodiscard]] std::optional<std::string> ResolveLink(const std::string& path);

}  // namespace zagent::edr
