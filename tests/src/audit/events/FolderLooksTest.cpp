#include "src/audit/events/FolderLooks.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::audit::internal {
namespace {

TEST(FolderLooksTest, AnswersWhatWasSeen) {
  FolderLooks looks;
  EXPECT_EQ(looks.Find("/a"), nullptr);
  looks.Keep("/a", FileIdentity{1, 2});
  looks.Keep("/b", std::nullopt);
  ASSERT_NE(looks.Find("/a"), nullptr);
  EXPECT_EQ(*looks.Find("/a"), (FileIdentity{1, 2}));
  ASSERT_NE(looks.Find("/b"), nullptr);
  EXPECT_EQ(*looks.Find("/b"), std::nullopt) << "that there was nothing is an answer";
}

TEST(FolderLooksTest, KeepsTheLastFour) {
  FolderLooks looks;
  for (const char* folder : {"/1", "/2", "/3", "/4"}) looks.Keep(folder, FileIdentity{1, 1});
  EXPECT_NE(looks.Find("/1"), nullptr);
  looks.Keep("/5", FileIdentity{1, 1});
  EXPECT_EQ(looks.Find("/1"), nullptr);
  EXPECT_NE(looks.Find("/2"), nullptr);
}

TEST(FolderLooksTest, KnowsNothingAfterForgetting) {
  FolderLooks looks;
  looks.Keep("/a", FileIdentity{1, 2});
  looks.Forget();
  EXPECT_EQ(looks.Find("/a"), nullptr);
}

}  // namespace
}  // namespace zagent::audit::internal
