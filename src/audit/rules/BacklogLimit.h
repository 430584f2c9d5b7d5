#pragma once

#include <cstdint>

#include "src/audit/rules/AuditSocket.h"

namespace zagent::audit::internal {

// Raises the kernel's limit of waiting records to `wanted`; a limit that is as high already, no limit at all (0), or
// one that the kernel does not tell, stays as it is. Failures are logged.
void RaiseAuditBacklogLimit(AuditSocket& socket, std::uint32_t wanted);

}  // namespace zagent::audit::internal
