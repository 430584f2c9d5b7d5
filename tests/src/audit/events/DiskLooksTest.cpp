#include "src/audit/events/DiskLooks.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fakes/FakeClock.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;

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

TEST(DiskLooksTest, NumbersThePieces) {
  DiskLooks looks;
  const std::uint64_t first = looks.Piece();
  looks.Forget();
  EXPECT_EQ(looks.Piece(), first + 1);
}

TEST(DiskLooksTest, APathWithoutCharactersWasNotSeenEither) {
  const DiskLooks looks;
  EXPECT_EQ(looks.folders.Find(""), nullptr);
}

class RestedLooksTest : public ::testing::Test {
 protected:
  // A look at the path that begins now, while the newest piece is this one.
  void LookAt(const std::string& path, std::uint64_t newest_piece, off_t size = 1) {
    const auto beginning = looks_.Begin(newest_piece);
    clock_.Advance(1ms);
    struct stat result {};
    result.st_size = size;
    looks_.Keep(path, beginning, result);
  }

  fakes::FakeClock clock_;
  RestedLooks looks_{clock_};
};

TEST_F(RestedLooksTest, ALookAnswersForWhatHadBeenReadBeforeIt) {
  EXPECT_EQ(looks_.Find("/a", 0), nullptr);
  LookAt("/a", 7, 3);
  ASSERT_NE(looks_.Find("/a", 7), nullptr);
  EXPECT_EQ(looks_.Find("/a", 7)->st_size, 3);
  EXPECT_NE(looks_.Find("/a", 2), nullptr);
  EXPECT_EQ(looks_.Find("/b", 2), nullptr);
}

TEST_F(RestedLooksTest, WhatWasReadLaterMayHaveHappenedBehindTheLook) {
  LookAt("/a", 7, 3);
  EXPECT_EQ(looks_.Find("/a", 8), nullptr);
  LookAt("/a", 8, 4);
  ASSERT_NE(looks_.Find("/a", 8), nullptr);
  EXPECT_EQ(looks_.Find("/a", 7)->st_size, 4) << "the newer look is as good for older events";
}

TEST_F(RestedLooksTest, ALookAnswersForATenthOfASecondFromItsBeginning) {
  LookAt("/a", 7);
  clock_.Advance(98ms);
  EXPECT_NE(looks_.Find("/a", 7), nullptr);
  clock_.Advance(1ms);
  EXPECT_EQ(looks_.Find("/a", 7), nullptr);
}

TEST_F(RestedLooksTest, HoldsNoMoreThanItsPlaces) {
  for (int file = 0; file < 4'000; ++file) looks_.Keep("/" + std::to_string(file), looks_.Begin(0), {});
  std::size_t held = 0;
  for (int file = 0; file < 4'000; ++file) held += looks_.Find("/" + std::to_string(file), 0) != nullptr ? 1U : 0U;
  EXPECT_GT(held, 0U);
  EXPECT_LE(held, 256U);
}

}  // namespace
}  // namespace zagent::audit::internal
