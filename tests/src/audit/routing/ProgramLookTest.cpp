#include "src/audit/routing/ProgramLook.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

class ProgramLookTest : public ::testing::Test {
 protected:
  static constexpr std::int32_t kPid = 7;

  // A process that runs `program`, with `root` as its root folder.
  void Start(const std::string& program, const std::string& root = "/") const {
    processes_.Start(kPid, 100, program);
    std::filesystem::create_symlink(root, processes_.Root() + "/" + std::to_string(kPid) + "/root");
  }
  // Whether a process of which the record says this is proved another.
  [[nodiscard]] bool IsProved(const std::string& image) const {
    fakes::FakeEvent event;
    event.pid = kPid;
    event.image = common::ImageInfo(image);
    return IsImageProvedAnotherFile(event, processes_.Root());
  }

  const fakes::FakeProcFs processes_;
  const fakes::TempFolder folder_;
  const std::string program_ = folder_.Write("updater", "the real one");
};

TEST_F(ProgramLookTest, AProcessThatRunsTheFileOfItsNameIsWhatItIsCalled) {
  Start(program_);
  EXPECT_FALSE(IsProved(program_));
}

TEST_F(ProgramLookTest, AProgramThatHasItsNameInAChrootOnlyIsAnother) {
  const std::string jail = folder_ / "jail";
  std::filesystem::create_directories(jail + folder_.Path());
  folder_.Write("jail" + program_, "an impostor");
  Start(jail + program_, jail);
  EXPECT_TRUE(IsProved(program_));
  std::filesystem::remove(program_);
  EXPECT_TRUE(IsProved(program_)) << "there is nothing of this name here";
}

TEST_F(ProgramLookTest, AChrootWithTheSameFileProvesNothing) {
  const std::string jail = folder_ / "jail";
  std::filesystem::create_directories(jail + folder_.Path());
  std::filesystem::create_hard_link(program_, jail + program_);
  Start(jail + program_, jail);
  EXPECT_FALSE(IsProved(program_));
}

TEST_F(ProgramLookTest, AProcessThatRunsAnotherProgramByNowProvesNothing) {
  Start(folder_.Write("next", "what the shell has become"));
  EXPECT_FALSE(IsProved(program_));
}

TEST_F(ProgramLookTest, NeitherDoesOneThatIsGoneOrHasNoName) {
  EXPECT_FALSE(IsProved(program_));
  Start("");
  EXPECT_FALSE(IsProved(program_));
  EXPECT_FALSE(IsProved(""));
  fakes::FakeEvent event;
  event.image.reset();
  EXPECT_FALSE(IsImageProvedAnotherFile(event, processes_.Root()));
  event.image = common::ImageInfo(program_);
  event.pid = -1;
  EXPECT_FALSE(IsImageProvedAnotherFile(event, processes_.Root()));
}

}  // namespace
}  // namespace zagent::audit::internal
