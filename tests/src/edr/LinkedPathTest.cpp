#include "src/edr/LinkedPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "tests/fakes/TempFolder.h"

namespace zagent::edr {
namespace {

class LinkedPathTest : public testing::Test {
 protected:
  LinkedPathTest() {
    std::filesystem::create_directories(base_ + "/real/sub");
    std::filesystem::create_directory_symlink("real", base_ + "/link");
    std::filesystem::create_symlink("nowhere", base_ + "/dangling");
  }

  fakes::TempFolder folder_;
  const std::string base_ = std::filesystem::canonical(folder_.Path());
};

TEST_F(LinkedPathTest, ARealPathMeansItself) {
  for (const std::string& path : {std::string("/"), base_ + "/real", base_ + "/real/sub", base_ + "/real/to/come"}) {
    EXPECT_FALSE(LeadsThroughLink(path)) << path;
    EXPECT_EQ(ResolveLink(path), path);
  }
}

TEST_F(LinkedPathTest, ALinkMeansWhatItPointsToAsItselfAndAsAFolder) {
  EXPECT_TRUE(LeadsThroughLink(base_ + "/link"));
  EXPECT_EQ(ResolveLink(base_ + "/link"), base_ + "/real");
  EXPECT_TRUE(LeadsThroughLink(base_ + "/link/sub"));
  EXPECT_EQ(ResolveLink(base_ + "/link/sub"), base_ + "/real/sub");
  EXPECT_TRUE(LeadsThroughLink(base_ + "/link/to/come"));
  EXPECT_EQ(ResolveLink(base_ + "/link/to/come"), base_ + "/real/to/come");
}

TEST_F(LinkedPathTest, ALinkThatLeadsNowhereMeansNothing) {
  EXPECT_TRUE(LeadsThroughLink(base_ + "/dangling"));
  EXPECT_EQ(ResolveLink(base_ + "/dangling"), std::nullopt);
}

// Looked up folder by folder it would take hours.
TEST_F(LinkedPathTest, APathThatIsTooLongForAnyFileMeansItselfAtOnce) {
  std::string path = base_ + "/link";
  while (path.size() < 8'000'000) path += "/x";
  EXPECT_FALSE(LeadsThroughLink(path));
  EXPECT_EQ(ResolveLink(path), path);
}

TEST_F(LinkedPathTest, ARelativePathMeansItself) {
  for (const char* path : {"", "link", "etc/passwd", "."}) {
    EXPECT_FALSE(LeadsThroughLink(path)) << path;
    EXPECT_EQ(ResolveLink(path), path);
  }
}

TEST_F(LinkedPathTest, APathThatIsJustShortEnoughIsFollowed) {
  std::string path = base_ + "/link/";
  path.append(PATH_MAX - 1 - path.size(), 'x');  // a name that no file has
  EXPECT_TRUE(LeadsThroughLink(path));
  path += 'x';
  EXPECT_FALSE(LeadsThroughLink(path));
}

}  // namespace
}  // namespace zagent::edr
