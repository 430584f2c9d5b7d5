#include "src/edr/process/ProcFSProcessInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/ProcessTimes.h"
#include "src/edr/process/PseudoRunningEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FakeProcFs;
using Strings = std::vector<std::string>;

class ProcFSProcessInfoTest : public testing::Test {
 protected:
  ProcFSProcessInfo Read(std::int32_t pid) { return ProcFSProcessInfo(pid, 1000, proc_.Root()); }
  std::string ErrorOf(std::int32_t pid) {
    return fakes::WhatOf<ProcessInfoException>([&] { (void)Read(pid); });
  }

  fakes::LogCapture log_;
  FakeProcFs proc_;
  fakes::TempFolder folder_;
};

TEST_F(ProcFSProcessInfoTest, ReadsAProcess) {
  const std::string program = folder_.Write("program", "x");
  proc_.Start(42, {.ppid = 7,
                   .image = program,
                   .arguments = {"program", "", "a b"},
                   .cwd = "/srv",
                   .uid = 1000,
                   .euid = 33,
                   .start = 100.5});
  const ProcFSProcessInfo info = Read(42);
  EXPECT_EQ(info.GetPid(), 42);
  EXPECT_EQ(info.GetParent(), 7);
  EXPECT_EQ(info.GetArguments(), (Strings{"program", "", "a b"}));
  EXPECT_EQ(info.GetCwd(), "/srv");
  EXPECT_EQ(info.GetAuid(), 1000U);
  EXPECT_EQ(info.GetUserId(), 1000U);
  EXPECT_EQ(info.GetEuid(), 33U);
  EXPECT_EQ(info.GetCreationTime(), FakeProcFs::kBootTime * 1'000'000'000 + 100'500'000'000);
  EXPECT_EQ(info.GetStartSinceBoot(), 100'500'000'000);

  struct stat disk {};
  ASSERT_EQ(stat(program.c_str(), &disk), 0);
  EXPECT_EQ(info.GetImage()->GetPath(), program);
  EXPECT_EQ(info.GetImage()->GetInode(), disk.st_ino);
  EXPECT_FALSE(info.GetImage()->GetOwnerName().empty());
  EXPECT_FALSE(info.GetImage()->GetGroupName().empty());
}

TEST_F(ProcFSProcessInfoTest, AThreadIdBecomesTheIdOfItsProcess) {
  proc_.Start(42, {.ppid = 7, .start = 100});
  proc_.Start(43, {.ppid = 7, .start = 900, .tgid = 42});
  const ProcFSProcessInfo info = Read(43);
  EXPECT_EQ(info.GetPid(), 42);
  EXPECT_EQ(info.GetParent(), 7);
  EXPECT_EQ(info.GetStartSinceBoot(), 100'000'000'000) << "the process's, not the thread's";
}

TEST_F(ProcFSProcessInfoTest, SaysWhatIsMissing) {
  EXPECT_EQ(ErrorOf(42), "Failed to read arguments for process with pid 42");
  proc_.Start(42);
  proc_.Remove(42, "status");
  EXPECT_EQ(ErrorOf(42), "Failed to open status for process with pid 42");
  proc_.Write(42, "status", "Tgid:\t42\nPPid:\t1\n");
  EXPECT_EQ(ErrorOf(42), "Failed to read uids for process with pid 42");
  proc_.Write(42, "status", "Tgid:\t42\nUid:\tnone\n");
  EXPECT_EQ(ErrorOf(42), "Failed to parse uid for process with pid 42");
  proc_.Start(42);
  proc_.Remove(42, "stat");
  EXPECT_EQ(ErrorOf(42), "Failed to open stat for process with pid 42");
}

TEST_F(ProcFSProcessInfoTest, TwoProcessesOfOnePidAreNotTakenForOne) {
  proc_.Start(42, {.start = 100});
  proc_.Remove(42, "cmdline");
  const std::string pipe = proc_.Root() + "/42/cmdline";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  // Opens when the reader does, who has read the start by then and waits for the arguments.
  std::thread successor([&] {
    const std::ofstream out(pipe);
    proc_.Start(42, {.start = 200});
  });
  EXPECT_EQ(ErrorOf(42), "Another process got the pid 42 meanwhile");
  successor.join();
  EXPECT_EQ(Read(42).GetStartSinceBoot(), 200'000'000'000);
}

TEST_F(ProcFSProcessInfoTest, ABrokenReadIsNoShortFile) {
  proc_.Start(42);
  proc_.Remove(42, "cmdline");
  std::filesystem::create_directory(proc_.Root() + "/42/cmdline");  // opens, and every read fails
  EXPECT_EQ(ErrorOf(42), "Failed to read arguments for process with pid 42");
  proc_.Start(42);
  proc_.Remove(42, "status");
  std::filesystem::create_directory(proc_.Root() + "/42/status");
  EXPECT_EQ(ErrorOf(42), "Failed to read status for process with pid 42");
}

TEST_F(ProcFSProcessInfoTest, AProcessWithoutProgramAndFolderIsOneAllTheSame) {
  proc_.Start(2, {.ppid = 0, .image = "", .arguments = {}, .cwd = ""});
  const ProcFSProcessInfo info = Read(2);
  EXPECT_EQ(info.GetParent(), 0);
  EXPECT_EQ(info.GetCwd(), "");
  EXPECT_EQ(info.GetImage()->GetPath(), "");
  EXPECT_TRUE(info.GetArguments().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to resolve cwd for process with pid 2: No such file"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to resolve exe for process with pid 2: No such file"));
}

TEST_F(ProcFSProcessInfoTest, AProgramThatCannotBeLookedAtIsKnownByItsPath) {
  proc_.Start(42, {.image = "/nowhere/program (deleted)"});
  const ProcFSProcessInfo info = Read(42);
  EXPECT_EQ(info.GetImage()->GetPath(), "/nowhere/program (deleted)");
  EXPECT_EQ(info.GetImage()->GetInode(), static_cast<std::uint64_t>(-1));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to read image data for process with pid 42: No such file"));
}

TEST_F(ProcFSProcessInfoTest, KeepsNoMoreArgumentsThanAStartTells) {
  proc_.Start(42, {.arguments = Strings(300, "x")});
  EXPECT_EQ(Read(42).GetArguments().size(), 255U);
  proc_.Start(42, {.arguments = {"a", std::string(1'000'000, 'x')}});
  const ProcFSProcessInfo info = Read(42);
  EXPECT_EQ(info.GetArguments().size(), 2U);
  EXPECT_EQ(info.GetArguments().back().size(), 128U * 1024U - 2U);
}

TEST_F(ProcFSProcessInfoTest, KnowsNoScriptAndTakesNoUpdate) {
  proc_.Start(42);
  ProcFSProcessInfo info = Read(42);
  EXPECT_FALSE(info.HasSecondaryImage());
  EXPECT_EQ(fakes::WhatOf<ProcessInfoException>([&] { (void)info.GetSecondaryImage(); }),
            "GetSecondary is not implemented");
  EXPECT_EQ(fakes::WhatOf<ProcessInfoException>([&] { info.Update(edr::PseudoRunningEvent(info)); }),
            "Update is not implemented");
}

TEST_F(ProcFSProcessInfoTest, ReadsThisProcess) {
  const ProcFSProcessInfo info(getpid(), 0);
  EXPECT_EQ(info.GetPid(), getpid());
  EXPECT_EQ(info.GetParent(), getppid());
  EXPECT_EQ(info.GetUserId(), getuid());
  EXPECT_EQ(info.GetImage()->GetPath(), std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(info.GetStartSinceBoot(), util::ReadStartSinceBoot(getpid()));
  ASSERT_FALSE(info.GetArguments().empty());
}

}  // namespace
}  // namespace zagent::common
