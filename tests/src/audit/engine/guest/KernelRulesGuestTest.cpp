// Runs the contract of the kernel's rule lists over the real kernel. It adds and removes audit rules of the machine it
// runs on, so it is made for a throw-away virtual machine, as root, and asks to be told that it is in one.

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include "tests/src/audit/engine/KernelRulesContract.h"

namespace zagent::audit::internal {
namespace {

std::shared_ptr<AuditNetlink> GiveReal() {
  return {&AuditNetlink::Kernel(), [](AuditNetlink*) {}};
}

// They came with Linux 5.16.
bool TakesIoUring() {
  utsname system{};
  int major = 0;
  int minor = 0;
  if (uname(&system) != 0 || std::sscanf(system.release, "%d.%d", &major, &minor) != 2) return false;
  return std::pair(major, minor) >= std::pair(5, 16);
}

INSTANTIATE_TEST_SUITE_P(Kernel, KernelRulesContract,
                         ::testing::Values(ContractKernel{"Kernel", GiveReal, TakesIoUring}),
                         [](const auto& suite) { return suite.param.name; });

}  // namespace
}  // namespace zagent::audit::internal

int main(int argc, char** argv) {
  const char* guest = std::getenv("OSTREL_GUEST");
  if (guest == nullptr || std::strcmp(guest, "1") != 0) {
    std::cerr << "kernel_rules_guest_test changes the audit rules of this machine. Set OSTREL_GUEST=1 in a virtual "
                 "machine that is made for it.\n";
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
