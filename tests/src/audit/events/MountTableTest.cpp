#include "src/audit/events/MountTable.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

class MountTableTest : public ::testing::Test {
 protected:
  MountTableTest() { std::filesystem::create_directory(proc_ / "self"); }

  void Write(const std::string& lines) { proc_.Write("self/mountinfo", lines); }
  // "<type> <major>:<minor>"
  std::string HolderOf(const std::string& path) {
    const auto mount = table_.Find(path);
    if (!mount) return "none";
    return mount->type + " " + std::to_string(major(mount->device)) + ":" + std::to_string(minor(mount->device));
  }

  fakes::LogCapture log_;
  fakes::TempFolder proc_;
  bool changed_ = false;
  int polls_ = 0;
  MountTable table_{proc_.Path(), [this](int) {
                      ++polls_;
                      return std::exchange(changed_, false);
                    }};
};

TEST_F(MountTableTest, TheDeepestMountHoldsAPath) {
  Write(
      "21 1 254:1 / / rw,relatime shared:1 - ext4 /dev/vda1 rw\n"
      "30 21 0:45 /@home /home rw,relatime shared:13 master:2 - btrfs /dev/vdb rw,subvol=/@home\n"
      "31 30 0:60 / /home/alice/mnt rw - tmpfs none rw\n");
  EXPECT_EQ(HolderOf("/"), "ext4 254:1");
  EXPECT_EQ(HolderOf("/homework"), "ext4 254:1");
  EXPECT_EQ(HolderOf("/home"), "btrfs 0:45");
  EXPECT_EQ(HolderOf("/home/alice"), "btrfs 0:45");
  EXPECT_EQ(HolderOf("/home/alice/mnt"), "tmpfs 0:60");
  EXPECT_EQ(HolderOf("/home/alice/mnt/a/b"), "tmpfs 0:60");
  EXPECT_EQ(HolderOf("home"), "none");
  EXPECT_EQ(HolderOf(""), "none");
}

TEST_F(MountTableTest, ALaterMountCoversWhatWasMountedAtItsPlace) {
  Write(
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /mnt rw - tmpfs old rw\n"
      "31 30 0:46 / /mnt/sub rw - tmpfs sub rw\n"
      "32 30 0:47 / /mnt rw - xfs new rw\n");
  EXPECT_EQ(HolderOf("/mnt"), "xfs 0:47");
  EXPECT_EQ(HolderOf("/mnt/sub"), "xfs 0:47") << "the old mount's sub-mount is out of sight";
}

TEST_F(MountTableTest, TheLastOfSeveralMountsAtOnePlaceIsSeen) {
  Write(
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /mnt rw - tmpfs first rw\n"
      "31 21 0:46 / /mnt rw - xfs last rw\n");
  EXPECT_EQ(HolderOf("/mnt"), "xfs 0:46");
}

TEST_F(MountTableTest, ALaterMountAboveCoversDeeperOnes) {
  Write(
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /srv/a/b rw - tmpfs deep rw\n"
      "31 21 0:46 / /srv rw - xfs above rw\n"
      "32 31 0:47 / /srv/c rw - tmpfs on-the-new-one rw\n");
  EXPECT_EQ(HolderOf("/srv/a/b"), "xfs 0:46");
  EXPECT_EQ(HolderOf("/srv/c/d"), "tmpfs 0:47");
}

TEST_F(MountTableTest, ARootOverTheRootCoversEverything) {
  Write(
      "1 1 0:2 / / rw - rootfs rootfs rw\n"
      "20 1 0:21 / /proc rw - proc proc rw\n"
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "22 21 0:22 / /proc rw - proc proc rw\n");
  EXPECT_EQ(HolderOf("/etc"), "ext4 254:1");
  EXPECT_EQ(HolderOf("/proc/1"), "proc 0:22");
  Write(
      "1 1 0:2 / / rw - rootfs rootfs rw\n"
      "20 1 0:21 / /proc rw - proc proc rw\n"
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n");
  changed_ = true;
  EXPECT_EQ(HolderOf("/proc/1"), "ext4 254:1");
}

TEST_F(MountTableTest, ReadsMountPointsWithUnusualCharacters) {
  Write(
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /srv/a\\040b\\011c\\012d\\134e rw - tmpfs none rw\n"
      "31 21 0:46 / /srv/f\\04 rw - tmpfs none rw\n"
      "32 21 0:47 / /srv/g\\040 rw - tmpfs none rw\n");
  EXPECT_EQ(HolderOf("/srv/a b\tc\nd\\e/file"), "tmpfs 0:45");
  EXPECT_EQ(HolderOf("/srv/f\\04"), "tmpfs 0:46");
  EXPECT_EQ(HolderOf("/srv/g "), "tmpfs 0:47");
}

TEST_F(MountTableTest, StepsOverLinesThatItCannotRead) {
  Write(
      "\n"
      "x 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "20 1 254-1 / / rw - ext4 /dev/vda1 rw\n"
      "20 1 254:z / / rw - ext4 /dev/vda1 rw\n"
      "20 1 254:1 / relative rw - ext4 /dev/vda1 rw\n"
      "20\n"
      "21 1 254:3 / / rw shared:1");
  EXPECT_EQ(HolderOf("/etc"), " 254:3");
}

// The list is read in pieces; meanwhile a mount may go, and another one get its number.
TEST_F(MountTableTest, ANumberThatStandsTwiceIsThatOfTheLastMount) {
  Write(
      "21 1 254:1 / / rw - ext4 /dev/vda1 rw\n"
      "30 21 0:45 / /mnt rw - tmpfs gone rw\n"
      "31 30 0:46 / /mnt/sub rw - tmpfs below rw\n"
      "32 21 0:47 / /srv rw - tmpfs none rw\n"
      "30 31 0:48 / /mnt/sub/deep rw - tmpfs none rw\n");
  EXPECT_EQ(HolderOf("/srv"), "tmpfs 0:47");
  EXPECT_EQ(HolderOf("/mnt"), "ext4 254:1");
}

TEST_F(MountTableTest, IsReadAgainOnlyWhenTheKernelSaysSo) {
  Write("21 1 254:1 / / rw - ext4 /dev/vda1 rw\n");
  EXPECT_EQ(HolderOf("/srv"), "ext4 254:1");
  Write("21 1 254:1 / / rw - ext4 /dev/vda1 rw\n30 21 0:45 / /srv rw - tmpfs none rw\n");
  EXPECT_EQ(HolderOf("/srv"), "ext4 254:1");
  changed_ = true;
  EXPECT_EQ(HolderOf("/srv"), "tmpfs 0:45");
  EXPECT_EQ(polls_, 3);
}

TEST_F(MountTableTest, AnswersNothingWithoutATableAndTellsItOnce) {
  EXPECT_EQ(HolderOf("/"), "none");
  EXPECT_EQ(HolderOf("/"), "none");
  EXPECT_EQ(
      log_.Count("Failed to read the mounts from " + proc_.Path() + "/self/mountinfo: No such file or directory (2)"),
      1);
  Write("21 1 254:1 / / rw - ext4 /dev/vda1 rw\n");
  EXPECT_EQ(HolderOf("/"), "ext4 254:1");
}

TEST(MountTablePollTest, AnErrorConditionIsAChange) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  common::util::UniqueFd reader(ends[0]);
  const common::util::UniqueFd writer(ends[1]);
  EXPECT_FALSE(MountTable::PollSaysSo(writer.Get()));
  reader.Reset();
  EXPECT_TRUE(MountTable::PollSaysSo(writer.Get()));
}

TEST(MountTablePollTest, ReadsTheTableOfThisMachine) {
  MountTable table;
  const auto proc = table.Find("/proc/self/status");
  ASSERT_TRUE(proc);
  EXPECT_EQ(proc->type, "proc");
  EXPECT_EQ(table.Find("/proc"), proc);
}

}  // namespace
}  // namespace zagent::audit::internal
