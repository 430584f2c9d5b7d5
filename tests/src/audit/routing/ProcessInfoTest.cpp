#include "src/audit/routing/ProcessInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::audit {
namespace {

using common::ImageInfo;
using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;

class ProcessInfoTest : public testing::Test {
 protected:
  static FakeEvent Start(const std::string& image) {
    FakeEvent event;
    event.type = EventType::ProcessStart;
    event.object_type = ObjectType::Process;
    event.pid = 42;
    event.ppid = 7;
    event.image = ImageInfo(image);
    event.arguments = {"program", "-x"};
    event.cwd = "/srv";
    event.uid = 1;
    event.euid = 2;
    event.auid = 3;
    event.timestamp = 5'000'000'000;
    return event;
  }
  // Of a file that is `inode`, whatever is at the path.
  static ImageInfo Recorded(const std::string& path, std::uint64_t inode) {
    return {"fd:00", 755, inode, path, 0, "root", "root", 0, ""};
  }
  void AddToTree(std::int32_t pid, const ImageInfo& image, std::int64_t creation_time = 0) {
    auto process = std::make_unique<fakes::FakeProcessInfo>(pid, 1);
    process->image = image;
    process->creation_time = creation_time;
    tree_.Add(std::move(process));
  }
  std::string ErrorOf(const FakeEvent& event) {
    return fakes::WhatOf<common::ProcessInfoException>([&] { (void)ProcessInfo(event, tree_); });
  }

  fakes::TempFolder folder_;
  const std::string program_ = folder_.Write("program", "x");
  common::ProcessTree tree_;
};

TEST_F(ProcessInfoTest, IsWhatTheStartSays) {
  FakeEvent event = Start(program_);
  event.secondary_image = ImageInfo("/srv/script");
  const ProcessInfo info(event, tree_);
  EXPECT_EQ(info.GetPid(), 42);
  EXPECT_EQ(info.GetParent(), 7);
  EXPECT_EQ(info.GetArguments(), (std::vector<std::string>{"program", "-x"}));
  EXPECT_EQ(info.GetCwd(), "/srv");
  EXPECT_EQ(info.GetUserId(), 1U);
  EXPECT_EQ(info.GetEuid(), 2U);
  EXPECT_EQ(info.GetAuid(), 3U);
  EXPECT_EQ(info.GetCreationTime(), 5'000'000'000);
  ASSERT_TRUE(info.HasSecondaryImage());
  EXPECT_EQ(info.GetSecondaryImage()->GetPath(), "/srv/script");
}

TEST_F(ProcessInfoTest, LooksAtTheProgramOnTheDisk) {
  const ProcessInfo info(Start(program_), tree_);
  struct stat disk {};
  ASSERT_EQ(stat(program_.c_str(), &disk), 0);
  EXPECT_EQ(info.GetImage()->GetPath(), program_);
  EXPECT_EQ(info.GetImage()->GetInode(), disk.st_ino);
  EXPECT_EQ(info.GetImage()->GetModificationTime(), disk.st_mtime);
  EXPECT_FALSE(info.GetImage()->GetOwnerName().empty());
}

TEST_F(ProcessInfoTest, TakesNeitherArgumentsNorFolderFromAFileEvent) {
  FakeEvent event = Start(program_);
  event.type = EventType::Write;
  event.object_type = ObjectType::File;
  const ProcessInfo info(event, tree_);
  EXPECT_TRUE(info.GetArguments().empty());
  EXPECT_EQ(info.GetCwd(), "");
  EXPECT_FALSE(info.HasSecondaryImage());
}

TEST_F(ProcessInfoTest, IsMadeOfNoOtherProcessEvent) {
  FakeEvent event = Start(program_);
  event.type = EventType::ProcessClone;
  EXPECT_NO_THROW((void)ProcessInfo(event, tree_));
  event.type = EventType::ProcessExit;
  EXPECT_EQ(ErrorOf(event), "ProcessInfo can only be created from a Process Exec or Clone event");
}

TEST_F(ProcessInfoTest, AProcessThatStartsAnotherProgramIsAsOldAsItWas) {
  AddToTree(42, ImageInfo("/bin/sh"), 1'000);
  EXPECT_EQ(ProcessInfo(Start(program_), tree_).GetCreationTime(), 1'000);
  FakeEvent clone = Start(program_);
  clone.type = EventType::ProcessClone;
  EXPECT_EQ(ProcessInfo(clone, tree_).GetCreationTime(), 5'000'000'000);
}

TEST_F(ProcessInfoTest, AProgramThatIsGoneIsThatOfAParentOfTheSameName) {
  const std::string path = "/nowhere/program";
  for (const auto& [of_parent, of_event] : std::vector<std::pair<std::string, std::string>>{
           {path, path}, {path + " (deleted)", path}, {path, path + " (deleted)"}}) {
    AddToTree(7, Recorded(of_parent, 99));
    const ProcessInfo info(Start(of_event), tree_);
    EXPECT_EQ(info.GetImage()->GetPath(), of_parent);
    EXPECT_EQ(info.GetImage()->GetInode(), 99U);
  }
}

TEST_F(ProcessInfoTest, IsNothingWithoutAProgram) {
  const std::string error = "ProcessInfo cannot find image information for PID: 42 (/nowhere/program)";
  EXPECT_EQ(ErrorOf(Start("/nowhere/program")), error);
  AddToTree(7, Recorded("/nowhere/other", 99));
  EXPECT_EQ(ErrorOf(Start("/nowhere/program")), error);
  FakeEvent without = Start("");
  without.image.reset();
  EXPECT_EQ(ErrorOf(without), "ProcessInfo cannot find image information for PID: 42 ()");
}

TEST_F(ProcessInfoTest, AnotherFileInThePlaceOfTheProgramIsNotTheProgram) {
  FakeEvent event = Start(program_);
  event.image = Recorded(program_, 99);
  EXPECT_EQ(ProcessInfo(event, tree_).GetImage()->GetInode(), 99U);
  event.image = Recorded("/nowhere/program", 99);
  EXPECT_EQ(ProcessInfo(event, tree_).GetImage()->GetInode(), 99U);
}

TEST_F(ProcessInfoTest, TakesNoUpdateAndNoNegativePid) {
  ProcessInfo info(Start(program_), tree_);
  EXPECT_EQ(fakes::WhatOf<common::ProcessInfoException>([&] { info.Update(Start(program_)); }),
            "Update is not implemented");
  FakeEvent event = Start(program_);
  event.pid = -5;
  EXPECT_EQ(ErrorOf(event), "ProcesInfo: pid cannot be negative");
}

TEST_F(ProcessInfoTest, NoProcessIsItsOwnParent) {
  const fakes::LogCapture log;
  FakeEvent event = Start(program_);
  event.ppid = event.pid;
  EXPECT_EQ(ProcessInfo(event, tree_).GetParent(), common::ProcessInfo::kNoParent);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "ProcessInfo: ppid cannot be the same as pid (42)"));
}

}  // namespace
}  // namespace zagent::audit
