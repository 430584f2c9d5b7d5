#include "src/audit/routing/ProgramLook.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

TEST_F(ProgramLookTest, AProgramThatWasUpdatedWhileItRunsIsWhatItIsCalled) {
  Start(folder_.Write("updater (deleted)", "the last version"));
  EXPECT_FALSE(IsProved(program_));
  EXPECT_FALSE(IsProved(program_ + " (deleted)")) << "as the records call it since";
  std::filesystem::remove(program_);
  EXPECT_FALSE(IsProved(program_)) << "there is no next version";
}

TEST_F(ProgramLookTest, AProgramThatIsRemovedIsNoneTheLessAnotherFromAMountOfItsOwn) {
  std::filesystem::create_symlink("/proc/version", program_ + " (deleted)");  // another device, and root's
  Start(program_ + " (deleted)");
  EXPECT_TRUE(IsProved(program_));
}

TEST_F(ProgramLookTest, NorIsARemovedFileThatEverybodyMayWriteWhatItIsCalled) {
  Start(folder_.Write("updater (deleted)", "an impostor"));
  std::filesystem::permissions(program_ + " (deleted)", std::filesystem::perms::others_write,
                               std::filesystem::perm_options::add);
  EXPECT_TRUE(IsProved(program_));
}

TEST_F(ProgramLookTest, NorIsARemovedFileOfSomebodyWhoMayPutNoneThere) {
  Start(folder_.Write("updater (deleted)", "an impostor"));
  ASSERT_EQ(chown((program_ + " (deleted)").c_str(), 4711, 4711), 0);
  EXPECT_TRUE(IsProved(program_));
  ASSERT_EQ(chown(folder_.Path().c_str(), 4711, 4711), 0);
  EXPECT_FALSE(IsProved(program_)) << "the folder is his";
}

TEST_F(ProgramLookTest, ARemovedProgramOfAChrootIsAnother) {
  const std::string jail = folder_ / "jail";
  std::filesystem::create_directories(jail + folder_.Path());
  Start(folder_.Write("jail" + program_ + " (deleted)", "an impostor"), jail);
  EXPECT_TRUE(IsProved(program_));
}

TEST_F(ProgramLookTest, AFileThatBearsTheMarkInItsNameIsWhatItIsCalled) {
  Start(folder_.Write("tool (deleted)", "of an odd name"));
  std::filesystem::permissions(folder_ / "tool (deleted)", std::filesystem::perms::others_write,
                               std::filesystem::perm_options::add);
  EXPECT_FALSE(IsProved(folder_ / "tool (deleted)"));
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
