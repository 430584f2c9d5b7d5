#include "src/audit/events/DiskLooks.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::audit::internal {
namespace {

TEST(DiskLooksTest, AnswersWhatWasSeen) {
  DiskLooks looks;
  EXPECT_EQ(looks.folders.Find("/a"), nullptr);
  looks.folders.Keep("/a", FileIdentity{1, 2});
  ASSERT_NE(looks.folders.Find("/a"), nullptr);
  EXPECT_EQ(*looks.folders.Find("/a"), (FileIdentity{1, 2}));
  EXPECT_EQ(looks.objects.Find("/a"), nullptr) << "what is at a path may be a link to it";
}

TEST(DiskLooksTest, ThatThereWasNothingIsAnAnswer) {
  DiskLooks looks;
  looks.objects.Keep("/gone", std::nullopt);
  ASSERT_NE(looks.objects.Find("/gone"), nullptr);
  EXPECT_FALSE(looks.objects.Find("/gone")->has_value());
}

TEST(DiskLooksTest, NothingIsInAFolderThatIsNotThere) {
  DiskLooks looks;
  looks.folders.Keep("/w", FileIdentity{1, 2});
  looks.folders.Keep("/gone", std::nullopt);
  EXPECT_TRUE(looks.LacksFolderOf("/gone/f"));
  EXPECT_FALSE(looks.LacksFolderOf("/w/f"));
  EXPECT_FALSE(looks.LacksFolderOf("/unknown/f"));
  EXPECT_FALSE(looks.LacksFolderOf("/f"));
}

TEST(DiskLooksTest, TheLastOfTwoInOnePlaceStays) {
  LookTable<int, 1> looks;
  looks.Keep("/a", 1);
  looks.Keep("/b", 2);
  EXPECT_EQ(looks.Find("/a"), nullptr);
  ASSERT_NE(looks.Find("/b"), nullptr);
  EXPECT_EQ(*looks.Find("/b"), 2);
}

TEST(DiskLooksTest, KnowsNothingAfterForgetting) {
  DiskLooks looks;
  looks.folders.Keep("/a", FileIdentity{1, 2});
  looks.objects.Keep("/a", std::nullopt);
  looks.Forget();
  EXPECT_EQ(looks.folders.Find("/a"), nullptr);
  EXPECT_EQ(looks.objects.Find("/a"), nullptr);
}

TEST(DiskLooksTest, APathWithoutCharactersWasNotSeenEither) {
  const DiskLooks looks;
  EXPECT_EQ(looks.folders.Find(""), nullptr);
}

}  // namespace
}  // namespace zagent::audit::internal
