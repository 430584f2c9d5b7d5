#include "common/src/storage/SpoolFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using std::filesystem::perms;

class SpoolFolderTest : public ::testing::Test {
 protected:
  std::string Prepare(const std::string& path) const { return PrepareSpoolFolder("Owner", path, folder_.Path() + "/"); }

  const fakes::TempFolder folder_;
};

TEST_F(SpoolFolderTest, ARelativePathLiesInTheWorkingDirectoryAndAnAbsoluteOneWhereItSays) {
  EXPECT_EQ(Prepare("relative/spool"), folder_ / "relative/spool");
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "relative/spool"));
  EXPECT_EQ(Prepare(folder_ / "absolute"), folder_ / "absolute");
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "absolute"));
}

TEST_F(SpoolFolderTest, WithoutAPathItIsTheWorkingDirectory) {
  EXPECT_EQ(Prepare(""), folder_.Path());
}

TEST_F(SpoolFolderTest, NoSlashIsLeftAtTheEnd) {
  EXPECT_EQ(Prepare("spool//"), folder_ / "spool");
  EXPECT_EQ(PrepareSpoolFolder("Owner", "//", ""), "/");
}

TEST_F(SpoolFolderTest, WhatIsMissingIsMadeForTheOwnerAloneAndWhatIsThereStaysAsItIs) {
  std::filesystem::create_directory(folder_ / "there");
  std::filesystem::permissions(folder_ / "there", perms(0755));
  Prepare("there/made/spool");
  EXPECT_EQ(std::filesystem::status(folder_ / "there").permissions(), perms(0755));
  EXPECT_EQ(std::filesystem::status(folder_ / "there/made").permissions(), perms(0700));
  EXPECT_EQ(std::filesystem::status(folder_ / "there/made/spool").permissions(), perms(0700));
}

TEST_F(SpoolFolderTest, AFileOnTheWayIsNamedWithWhoAsked) {
  folder_.Write("file", "in the way");
  EXPECT_EQ(fakes::WhatOf([&] { Prepare("file/spool"); }),
            "Owner: Failed to create " + (folder_ / "file/spool") + ": Not a directory (20)");
}

}  // namespace
}  // namespace zagent::common
