#include "src/edr/DigestPace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr {
namespace {

using namespace std::chrono_literals;

class DigestPaceTest : public testing::Test {
 protected:
  // A file of this size without a block on disk.
  std::string File(const std::string& name, std::int64_t size) {
    const std::string path = folder_.Write(name, "");
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
    return path;
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  common::util::DigestCache cache_{clock_};
  DigestPace pace_{cache_, clock_, "[FIM]: "};
};

TEST_F(DigestPaceTest, ALargeFileIsReadOnceInThirtySeconds) {
  const std::string path = File("large", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(path));
  EXPECT_FALSE(pace_.Admits(path));
  clock_.Advance(29s);
  EXPECT_FALSE(pace_.Admits(path));
  clock_.Advance(1s);
  EXPECT_TRUE(pace_.Admits(path));
  EXPECT_FALSE(pace_.Admits(path)) << "counted from the last time that it was read";
}

TEST_F(DigestPaceTest, AFileIsItselfUnderEachOfItsNames) {
  const std::string path = File("large", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(path));
  std::filesystem::create_hard_link(path, folder_ / "other name");
  EXPECT_FALSE(pace_.Admits(folder_ / "other name"));
  EXPECT_TRUE(pace_.Admits(File("another", DigestPace::kMaxFreeSize + 1)));
}

TEST_F(DigestPaceTest, WhatIsSmallOrCannotBeReadIsFree) {
  const std::string path = File("small", DigestPace::kMaxFreeSize);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(pace_.Admits(path));
    EXPECT_TRUE(pace_.Admits(folder_.Path()));
    EXPECT_TRUE(pace_.Admits(folder_ / "nowhere"));
  }
}

TEST_F(DigestPaceTest, AKnownDigestIsFree) {
  const std::string path = File("large", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(path));
  struct stat stat {};
  ASSERT_EQ(::stat(path.c_str(), &stat), 0);
  cache_.Keep(stat, {.md5 = {}, .sha1 = {}, .sha256 = std::vector<unsigned char>(32, 1)});
  EXPECT_TRUE(pace_.Admits(path));
  std::filesystem::resize_file(path, DigestPace::kMaxFreeSize + 2);
  EXPECT_FALSE(pace_.Admits(path)) << "it has changed since";
}

TEST_F(DigestPaceTest, OneWarningAMinuteCountsWhatGoesWithout) {
  const std::string path = File("large", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(path));
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(pace_.Admits(path));
  const std::string text = " events without a digest: " + path + " is large and written all the time";
  EXPECT_EQ(log_.Count("[FIM]: DigestPace: "), 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "DigestPace: 1" + text));
  clock_.Advance(60s);
  EXPECT_TRUE(pace_.Admits(path));
  EXPECT_FALSE(pace_.Admits(path));
  EXPECT_EQ(log_.Count("[FIM]: DigestPace: "), 2);
  EXPECT_TRUE(log_.Has("DigestPace: 5" + text));
}

TEST_F(DigestPaceTest, AFileAboveFourGiBIsNeverRead) {
  const std::string largest = File("largest", DigestPace::kMaxSize);
  EXPECT_TRUE(pace_.Admits(largest));
  const std::string too_large = File("too large", DigestPace::kMaxSize + 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(pace_.Admits(too_large));
    clock_.Advance(1h);
  }
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING,
                       "DigestPace: 1 events without a digest: " + too_large + " is larger than 4 GiB"));
}

TEST_F(DigestPaceTest, OfHolesFourGiBAreReadInAMinuteOverAllFiles) {
  constexpr std::int64_t kGiB = std::int64_t{1} << 30;
  EXPECT_TRUE(pace_.Admits(File("first", 3 * kGiB)));
  const std::string second = File("second", 2 * kGiB);
  EXPECT_FALSE(pace_.Admits(second));
  EXPECT_TRUE(
      log_.Has("DigestPace: 1 events without a digest: " + second + " has holes, of which 4 GiB a minute are read"));
  EXPECT_TRUE(pace_.Admits(File("third", kGiB))) << "what is refused is not counted as read";
  EXPECT_FALSE(pace_.Admits(File("fourth", DigestPace::kMaxFreeSize + 1)));
  EXPECT_TRUE(pace_.Admits(folder_.Write("data", std::string(DigestPace::kMaxFreeSize + 1, 'x')))) << "without a hole";
  clock_.Advance(59s);
  EXPECT_FALSE(pace_.Admits(second));
  clock_.Advance(1s);
  EXPECT_TRUE(pace_.Admits(second));
}

TEST_F(DigestPaceTest, AtTheBoundTheOldestIsForgotten) {
  const std::string oldest = File("oldest", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(oldest));
  clock_.Advance(1s);
  const std::string second = File("second", DigestPace::kMaxFreeSize + 1);
  EXPECT_TRUE(pace_.Admits(second));
  clock_.Advance(1s);
  for (std::size_t i = 2; i <= DigestPace::kMaxFiles; ++i) {
    EXPECT_TRUE(pace_.Admits(File(std::to_string(i), DigestPace::kMaxFreeSize + 1)));
  }
  EXPECT_FALSE(pace_.Admits(second));
  EXPECT_TRUE(pace_.Admits(oldest));
}

}  // namespace
}  // namespace zagent::edr
