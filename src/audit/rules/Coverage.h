#pragma once

#include "src/audit/rules/AuditSocket.h"

namespace zagent::audit::internal {

// How much of what happens to a file or folder the kernel is asked to tell.
struct Coverage {
  bool extended = false;  // what no watch permission covers, too
  bool io_uring = false;  // and what programs have done through io_uring
};

// What is wanted, as far as this kernel takes it: rules for io_uring came with Linux 5.16, and whether it knows them
// is tried with one that hides nothing and is taken away again. Logs what is in force.
Coverage FindCoverage(AuditSocket& socket, bool wants_extended);

}  // namespace zagent::audit::internal
