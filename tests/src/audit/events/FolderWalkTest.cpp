#include "src/audit/events/FolderWalk.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;

// Any device: the walk takes what the mount table says.
const std::uint64_t kDevice = makedev(7, 77);

class FolderWalkTest : public ::testing::Test {
 protected:
  FolderWalkTest() {
    fs::create_directory(proc_ / "self");
    Mounts("");
  }

  // The root file system and further lines.
  void Mounts(const std::string& lines) {
    proc_.Write("self/mountinfo", "21 1 7:77 / / rw - ext4 /dev/vda1 rw\n" + lines);
  }
  std::string Make(const std::string& name) const {
    fs::create_directories(root_ / name);
    return root_ / name;
  }
  static std::uint64_t InodeOf(const std::string& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return found.st_ino;
  }
  void Walk() {
    while (walk_.Step()) {
    }
  }
  bool Knows(const std::string& path) { return identities_.PathOf({kDevice, InodeOf(path)}) == path; }

  fakes::LogCapture log_;
  fakes::TempFolder root_, proc_;
  FolderIdentities identities_;
  MountTable mounts_{proc_.Path(), [](int) { return true; }};
  FolderWalk walk_{identities_, mounts_};
};

TEST_F(FolderWalkTest, FindsEveryFolderBelowAWatchedOne) {
  const std::string deep = Make("a/b/c d");
  const std::string other = Make("a/other");
  root_.Write("a/file", "no folder");
  walk_.Watch({{root_.Path()}});
  Walk();
  EXPECT_TRUE(Knows(root_.Path()));
  EXPECT_TRUE(Knows(root_ / "a"));
  EXPECT_TRUE(Knows(root_ / "a/b"));
  EXPECT_TRUE(Knows(deep));
  EXPECT_TRUE(Knows(other));
  EXPECT_FALSE(Knows(root_ / "a/file"));
}

TEST_F(FolderWalkTest, GoesBreadthFirst) {
  Make("a/a/a");
  Make("b/b/b");
  walk_.Watch({{root_.Path()}});
  while (!Knows(root_ / "a/a") || !Knows(root_ / "b/b")) ASSERT_TRUE(walk_.Step());
  EXPECT_FALSE(Knows(root_ / "a/a/a"));
  EXPECT_FALSE(Knows(root_ / "b/b/b"));
}

TEST_F(FolderWalkTest, LooksAtALargeFolderInPortions) {
  Make("big");
  for (int i = 0; i < 1000; ++i) Make("big/" + std::to_string(i));
  walk_.Watch({{root_ / "big"}});
  int steps = 0;
  while (walk_.Step()) ++steps;
  EXPECT_GE(steps, 1000 / 256);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(Knows(root_ / ("big/" + std::to_string(i)))) << i;
}

TEST_F(FolderWalkTest, FollowsNoLink) {
  Make("outside/sub");
  Make("watched");
  fs::create_symlink(root_ / "outside", root_ / "watched/link");
  fs::create_symlink(root_ / "outside", root_ / "link");
  walk_.Watch({{root_ / "watched"}, {root_ / "link"}});
  Walk();
  EXPECT_FALSE(Knows(root_ / "outside"));
  EXPECT_FALSE(Knows(root_ / "outside/sub"));
}

TEST_F(FolderWalkTest, LearnsAFolderByItselfWhenItsContentIsNotWatched) {
  Make("etc/sub");
  walk_.Watch({{root_ / "etc", false}});
  Walk();
  EXPECT_TRUE(Knows(root_ / "etc"));
  EXPECT_FALSE(Knows(root_ / "etc/sub"));
}

TEST_F(FolderWalkTest, StepsOverWhatIsNotThereOrCannotBeEntered) {
  Make("here");
  root_.Write("file", "");
  walk_.Watch({{root_ / "missing"}, {root_ / "file"}, {root_ / "here"}});
  Walk();
  EXPECT_TRUE(Knows(root_ / "here"));
  EXPECT_EQ(identities_.FolderAt(root_ / "missing"), std::nullopt);
}

TEST_F(FolderWalkTest, TakesTheDeviceThatTheMountTableNames) {
  Make("sub");
  Mounts("30 21 8:88 / " + root_.Path() + " rw - btrfs /dev/vdb rw\n");
  walk_.Watch({{root_.Path()}});
  Walk();
  EXPECT_EQ(identities_.PathOf({makedev(8, 88), InodeOf(root_ / "sub")}), root_ / "sub");
}

TEST_F(FolderWalkTest, StaysOutOfFileSystemsThatMayKeepItWaiting) {
  Make("sub");
  for (const std::string type : {"proc", "sysfs", "nfs4", "cifs", "autofs", "fuse", "fuse.sshfs"}) {
    Mounts("30 21 8:88 / " + root_.Path() + " rw - " + type + " none rw\n");
    walk_.Watch({});
    walk_.Watch({{root_.Path()}});
    Walk();
    EXPECT_EQ(identities_.FolderAt(root_.Path()), std::nullopt) << type;
    EXPECT_EQ(identities_.FolderAt(root_ / "sub"), std::nullopt) << type;
  }
}

// A file system of its own on every machine, and another one than the folder's that it is mounted in.
TEST_F(FolderWalkTest, StaysOutOfSuchAFileSystemBelowAWatchedFolder) {
  struct stat dev {};
  struct stat shm {};
  ASSERT_EQ(stat("/dev", &dev), 0);
  ASSERT_EQ(stat("/dev/shm", &shm), 0);
  ASSERT_NE(dev.st_dev, shm.st_dev);
  std::string below = "/dev/shm/ostrel-test-XXXXXX";
  ASSERT_NE(mkdtemp(below.data()), nullptr);
  for (const auto& [type, is_entered] : {std::pair("tmpfs", true), std::pair("nfs4", false)}) {
    Mounts("30 21 0:5 / /dev rw - devtmpfs none rw\n31 30 8:88 / /dev/shm rw - " + std::string(type) + " none rw\n");
    walk_.Watch({});
    walk_.Watch({{"/dev"}});
    Walk();
    EXPECT_EQ(identities_.FolderAt("/dev/shm"), (FileIdentity{makedev(8, 88), shm.st_ino})) << type;
    EXPECT_EQ(identities_.FolderAt(below).has_value(), is_entered) << type;
  }
  EXPECT_EQ(rmdir(below.c_str()), 0);
}

// --- other rules

TEST_F(FolderWalkTest, ForgetsWhatIsNotWatchedAnyMore) {
  Make("a/sub");
  Make("b");
  walk_.Watch({{root_ / "a"}, {root_ / "b"}});
  Walk();
  walk_.Watch({{root_ / "b"}});
  Walk();
  EXPECT_FALSE(Knows(root_ / "a"));
  EXPECT_FALSE(Knows(root_ / "a/sub"));
  EXPECT_TRUE(Knows(root_ / "b"));
}

TEST_F(FolderWalkTest, KeepsWhatAnotherRuleStillCovers) {
  Make("a/sub");
  walk_.Watch({{root_ / "a"}, {root_ / "a/sub"}});
  Walk();
  walk_.Watch({{root_ / "a"}});
  EXPECT_TRUE(Knows(root_ / "a/sub"));
  walk_.Watch({{root_ / "a/sub"}});
  EXPECT_FALSE(Knows(root_ / "a"));
  Walk();
  EXPECT_TRUE(Knows(root_ / "a/sub"));
  walk_.Watch({});
  EXPECT_FALSE(Knows(root_ / "a/sub"));
}

TEST_F(FolderWalkTest, DoesNotWalkAgainWhatItKnows) {
  Make("a");
  walk_.Watch({{root_ / "a"}});
  Walk();
  Make("a/later");  // the records would tell
  walk_.Watch({{root_ / "a"}, {root_ / "a/sub"}});
  EXPECT_FALSE(walk_.Step());
  EXPECT_FALSE(Knows(root_ / "a/later"));
}

TEST_F(FolderWalkTest, WalksTheContentOnceItIsWatchedToo) {
  Make("a/sub");
  walk_.Watch({{root_ / "a", false}});
  Walk();
  EXPECT_FALSE(Knows(root_ / "a/sub"));
  walk_.Watch({{root_ / "a", true}});
  Walk();
  EXPECT_TRUE(Knows(root_ / "a/sub"));
}

TEST_F(FolderWalkTest, LeavesARuleThatWentBeforeItsTurn) {
  Make("a");
  Make("b");
  walk_.Watch({{root_ / "a"}, {root_ / "b"}});
  walk_.Watch({{root_ / "b"}});
  Walk();
  EXPECT_EQ(identities_.FolderAt(root_ / "a"), std::nullopt);
  EXPECT_TRUE(Knows(root_ / "b"));
}

// --- against the records

TEST_F(FolderWalkTest, WhatTheRecordsToldStands) {
  const std::string a = Make("a");
  Make("a/sub");
  walk_.Watch({{root_.Path()}});
  ASSERT_TRUE(walk_.Step());
  // The records are ahead: the folder has another name by now.
  identities_.Rename({kDevice, InodeOf(a)}, a, root_ / "renamed");
  Walk();
  EXPECT_EQ(identities_.PathOf({kDevice, InodeOf(a)}), root_ / "renamed");
}

TEST_F(FolderWalkTest, WhatTheRecordsToldOfAWatchedFolderStandsToo) {
  const std::string a = Make("a");
  walk_.Watch({{a}, {Make("b")}});
  identities_.Learn({kDevice, InodeOf(a)}, root_ / "b/moved");
  Walk();
  EXPECT_EQ(identities_.PathOf({kDevice, InodeOf(a)}), root_ / "b/moved");
}

TEST_F(FolderWalkTest, FindsAFolderAgainThatWasRenamedBeforeItsTurn) {
  Make("a/sub");
  walk_.Watch({{root_.Path()}});
  while (!Knows(root_ / "a")) ASSERT_TRUE(walk_.Step());
  fs::rename(root_ / "a", root_ / "b");
  identities_.Rename({kDevice, InodeOf(root_ / "b")}, root_ / "a", root_ / "b");
  Walk();
  EXPECT_TRUE(Knows(root_ / "b/sub"));
}

TEST_F(FolderWalkTest, DoesNotTakeAnotherFolderForTheOneThatWasThere) {
  Make("a");
  walk_.Watch({{root_.Path()}});
  while (!Knows(root_ / "a")) ASSERT_TRUE(walk_.Step());
  fs::rename(root_ / "a", root_ / "old");
  Make("a/sub");  // in a new folder of that name, which no record has told of yet
  Walk();
  EXPECT_EQ(identities_.FolderAt(root_ / "a/sub"), std::nullopt);
}

TEST_F(FolderWalkTest, EndsWhenNoMoreFoldersAreRemembered) {
  FolderIdentities few(10);
  FolderWalk walk(few, mounts_);
  for (int i = 0; i < 20; ++i) Make(std::to_string(i) + "/sub");
  walk.Watch({{root_.Path()}});
  while (walk.Step()) {
  }
  EXPECT_EQ(few.Size(), 10U);
  EXPECT_EQ(log_.Count("More folders below the watched paths than are remembered"), 1);
}

TEST_F(FolderWalkTest, LooksAgainAtAWatchedFolderThatWasNotThere) {
  walk_.Watch({{root_ / "late"}});
  Walk();
  const std::string deep = Make("late/deep");
  walk_.Watch({{root_ / "late"}});
  Walk();
  EXPECT_TRUE(Knows(deep));
}

TEST_F(FolderWalkTest, LooksNoMoreAtAWatchedFolderThatCame) {
  walk_.Watch({{root_ / "late"}});
  Walk();
  Make("late");
  walk_.Watch({{root_ / "late"}});
  Walk();
  Make("late/later");  // the records would tell
  walk_.Watch({{root_ / "late"}});
  EXPECT_FALSE(walk_.Step());
  EXPECT_FALSE(Knows(root_ / "late/later"));
}

TEST_F(FolderWalkTest, KnowsAWatchedFolderThatReplacedAnUnknownOne) {
  const std::string deep = Make("a/deep");
  identities_.Learn({kDevice, 4242}, root_ / "a");
  walk_.Watch({{root_ / "a"}});
  Walk();
  EXPECT_TRUE(Knows(root_ / "a"));
  EXPECT_TRUE(Knows(deep));
}

TEST_F(FolderWalkTest, KnowsNothingOutsideTheWatchedFolders) {
  const std::string outside = Make("outside");
  identities_.Learn({kDevice, InodeOf(outside)}, outside);
  walk_.Watch({{Make("a")}});
  Walk();
  EXPECT_FALSE(Knows(outside));
  identities_.Learn({kDevice, InodeOf(outside)}, outside);
  EXPECT_FALSE(Knows(outside));
}

TEST_F(FolderWalkTest, StartsAgainWhenRecordsWereLost) {
  const std::string folder = Make("a/b");
  walk_.Watch({{root_ / "a"}});
  Walk();
  identities_.Rename({kDevice, InodeOf(folder)}, folder, root_ / "a/wrong");
  walk_.StartAgain();
  EXPECT_FALSE(Knows(folder));
  Walk();
  EXPECT_TRUE(Knows(folder));
}

}  // namespace
}  // namespace zagent::audit::internal
