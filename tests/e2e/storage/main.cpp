// The tests mount disks of their own: in a mount namespace that nobody else sees.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "tests/e2e/PrivateMounts.h"

namespace {

bool EnterPrivateNamespace() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
  if (uid != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
  return zagent::e2e::MakeMountsPrivate();
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (!EnterPrivateNamespace()) {
    std::cerr << "no mount namespace of its own: " << std::strerror(errno) << "\n";
    return 1;
  }
  return RUN_ALL_TESTS();
}
