#include "common/src/http/UploadSource.h"

#include <gtest/gtest.h>

namespace zagent::common {
namespace {

constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";

UploadSource Example() {
  struct stat status {};
  status.st_ino = 1'234'567;
  status.st_mtim = {1'714'558'830, 123'456'789};
  status.st_size = 4096;
  return UploadSource::Of("/var/spool/fim-events.0042", status);
}

TEST(UploadSourceTest, HasTheIdThatItsAgentPrefixInodeTimeAndSizeGive) {
  // Calculated apart from this code.
  EXPECT_EQ("28a0a1d7-5d38-58a2-95e3-cb9fdfe233cd", Example().MakeRequestId(kAgent));
}

TEST(UploadSourceTest, KeepsItsIdWhenTheSpoolRenamesIt) {
  UploadSource renamed = Example();
  renamed.path = "/var/spool/fim-events.0001";
  EXPECT_EQ(Example().MakeRequestId(kAgent), renamed.MakeRequestId(kAgent));
}

TEST(UploadSourceTest, HasAnotherIdWhenAnythingElseDiffers) {
  std::vector<UploadSource> others(4, Example());
  others[0].prefix = "ioc-events";
  others[1].inode += 1;
  others[2].modified += 1;
  others[3].size += 1;
  for (const UploadSource& other : others) EXPECT_NE(Example().MakeRequestId(kAgent), other.MakeRequestId(kAgent));
  EXPECT_NE(Example().MakeRequestId(kAgent), Example().MakeRequestId("another agent"));
}

TEST(UploadSourceTest, TakesItsPrefixFromTheName) {
  EXPECT_EQ("fim-events", Example().prefix);
  EXPECT_EQ("a.b", UploadSource::Of("a.b.0001", {}).prefix);
  EXPECT_EQ("bare", UploadSource::Of("/x.y/bare", {}).prefix);
}

}  // namespace
}  // namespace zagent::common
