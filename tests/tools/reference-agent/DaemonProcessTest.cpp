#include "tools/reference-agent/DaemonProcess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "tests/fakes/TempFolder.h"

namespace zagent::reference_agent {
namespace {

// The code that the daemon ends with, or nothing when it is detached and lives; both within half a minute.
std::optional<int> EndOrDetachingOf(DaemonProcess& daemon) {
  const pid_t before = daemon.Pid();
  for (int tries = 0; tries < 3000 && daemon.Pid() == before; ++tries) {
    if (const std::optional<int> code = daemon.Reap()) return code;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return std::nullopt;
}

TEST(DaemonProcessTest, AProcessThatEndsWhileItIsReadIsNobodysChild) {
  const fakes::TempFolder proc;
  // Like the file of a process that has ended: it can be opened, and reading it fails.
  std::filesystem::create_directories(proc / "4711/stat");
  DaemonProcess daemon(proc.Path());
  daemon.Start("/bin/false");
  EXPECT_EQ(EndOrDetachingOf(daemon), 1);
}

TEST(DaemonProcessTest, TheDetachedChildIsFoundAmongAllProcessesWhateverItsName) {
  const fakes::TempFolder proc;
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pause();
    _exit(0);
  }
  std::filesystem::create_directories(proc / "4711/stat");
  std::filesystem::create_directory(proc / "1");
  proc.Write("1/stat", "1 (of somebody else) S 0 1 1");
  std::filesystem::create_directory(proc / std::to_string(child));
  proc.Write(std::to_string(child) + "/stat",
             std::to_string(child) + " (a) S 1\n(b) S " + std::to_string(getpid()) + " 1 1");
  DaemonProcess daemon(proc.Path());
  daemon.Start("/bin/true");
  EXPECT_EQ(EndOrDetachingOf(daemon), std::nullopt);
  EXPECT_EQ(daemon.Pid(), child);
  EXPECT_TRUE(daemon.Kill());
  EXPECT_EQ(EndOrDetachingOf(daemon), 128 + SIGKILL);
}

}  // namespace
}  // namespace zagent::reference_agent
