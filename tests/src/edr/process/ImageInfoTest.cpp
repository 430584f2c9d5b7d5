#include "src/edr/process/ImageInfo.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <cstdio>

#include "common/src/util/DeviceText.h"
#include "common/src/util/HashGenerator.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

TEST(ImageInfoTest, ReadsTheOctalDigitsOfAModeAsADecimalNumber) {
  EXPECT_EQ(PermissionOf(0100644), 644U);
  EXPECT_EQ(PermissionOf(040755), 755U);
  EXPECT_EQ(PermissionOf(0104755), 4755U);
  EXPECT_EQ(PermissionOf(0120777), 777U);
  EXPECT_EQ(PermissionOf(0100000), 0U);
}

TEST(ImageInfoTest, KnowsOnlyThePathOfAnExecutableFromASyscallRecord) {
  const ImageInfo image("/bin/ops");
  EXPECT_EQ(image.GetPath(), "/bin/ops");
  EXPECT_EQ(image.GetPermission(), 4294967295U);
  EXPECT_EQ(image.GetInode(), 18446744073709551615U);
  EXPECT_EQ(image.GetOwnerId(), 4294967295U);
  EXPECT_EQ(image.GetGroupId(), 4294967295U);
  EXPECT_EQ(image.GetModificationTime(), -1);
  EXPECT_EQ(image.GetAccessTime(), -1);
  EXPECT_EQ(image.GetChangeTime(), -1);
  EXPECT_TRUE(image.GetDevice().empty());
  EXPECT_TRUE(image.GetOwnerName().empty());
}

TEST(ImageInfoTest, TakesEverythingButTheTimesFromARecord) {
  const ImageInfo image("fd:00", 4755, 137, "/srv/w/h", 34, "tape", "man", 12, "text");
  EXPECT_EQ(image.GetDevice(), "fd:00");
  EXPECT_EQ(image.GetPermission(), 4755U);
  EXPECT_EQ(image.GetInode(), 137U);
  EXPECT_EQ(image.GetPath(), "/srv/w/h");
  EXPECT_EQ(image.GetGroupId(), 34U);
  EXPECT_EQ(image.GetGroupName(), "tape");
  EXPECT_EQ(image.GetOwnerName(), "man");
  EXPECT_EQ(image.GetOwnerId(), 12U);
  EXPECT_EQ(image.GetText(), "text");
  EXPECT_EQ(image.GetModificationTime(), 0);
  EXPECT_EQ(image.GetAccessTime(), 0);
  EXPECT_EQ(image.GetChangeTime(), 0);
}

TEST(ImageInfoTest, TakesEverythingButTheNamesFromAStat) {
  struct stat result {};
  ASSERT_EQ(stat("/etc", &result), 0);
  const ImageInfo image("/etc", result);
  EXPECT_EQ(image.GetDevice(), util::DeviceText(result.st_dev));
  EXPECT_EQ(image.GetInode(), result.st_ino);
  EXPECT_EQ(image.GetPermission(), PermissionOf(result.st_mode));
  EXPECT_EQ(image.GetModificationTime(), result.st_mtime);
  EXPECT_EQ(image.GetAccessTime(), result.st_atime);
  EXPECT_EQ(image.GetChangeTime(), result.st_ctime);
  EXPECT_FALSE(image.IsSymlink());
  EXPECT_TRUE(image.GetOwnerName().empty());
}

TEST(ImageInfoTest, KnowsASymbolicLinkByItsMode) {
  struct stat result {};
  ASSERT_EQ(lstat("/proc/self", &result), 0);
  EXPECT_TRUE(ImageInfo("/proc/self", result).IsSymlink());
}

TEST(ImageInfoTest, WritesDevicesAsAuditDoes) {
  EXPECT_EQ(util::DeviceText(makedev(0xfd, 0)), "fd:00");
  EXPECT_EQ(util::DeviceText(makedev(0, 2)), "00:02");
  EXPECT_EQ(util::DeviceText(makedev(0x103, 0x12345)), "103:12345");
}

class ImageDigestTest : public ::testing::Test {
 protected:
  static ImageInfo ImageOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(stat(path.c_str(), &result), 0);
    return {path, result};
  }

  static constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  fakes::TempFolder folder_;
  std::string file_ = folder_.Write("f", "abc");
};

TEST_F(ImageDigestTest, IsTheSha256OfTheFileInLowercaseHexadecimal) {
  EXPECT_EQ(ImageOf(file_).GetDigest(), kAbcSha256);
}

TEST_F(ImageDigestTest, IsComputedOnceAndGoesWithACopy) {
  const ImageInfo image = ImageOf(file_);
  EXPECT_EQ(image.GetDigest(), kAbcSha256);
  folder_.Write("f", "something else");
  EXPECT_EQ(image.GetDigest(), kAbcSha256);
  const ImageInfo copy(image);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(copy.GetDigest(), kAbcSha256);
  EXPECT_NE(ImageOf(file_).GetDigest(), kAbcSha256);
}

TEST_F(ImageDigestTest, ACacheKnowsAllDigestsOfTheFileAfterwardsAndIsAskedBefore) {
  fakes::FakeClock clock;
  clock.SetWall(std::chrono::system_clock::now() + std::chrono::minutes(1) - clock.Now());  // the file has settled
  util::DigestCache cache(clock);
  EXPECT_EQ(ImageOf(file_).GetDigest(&cache), kAbcSha256);
  struct stat result {};
  ASSERT_EQ(stat(file_.c_str(), &result), 0);
  EXPECT_EQ(cache.Find(result).md5.size(), 16U);
  EXPECT_EQ(cache.Find(result).sha1.size(), 20U);
  cache.Keep(result, {.md5 = {}, .sha1 = {}, .sha256 = std::vector<unsigned char>(32, 0xAB)});
  std::string expected;
  for (int i = 0; i < 32; ++i) expected += "ab";
  EXPECT_EQ(ImageOf(file_).GetDigest(&cache), expected);
}

TEST_F(ImageDigestTest, IsNoneOfAFileThatReplacedTheImage) {
  const ImageInfo image = ImageOf(file_);
  ASSERT_EQ(std::rename(folder_.Write("other", "xyz").c_str(), file_.c_str()), 0);
  try {
    static_cast<void>(image.GetDigest());
    FAIL() << "hashed another file under the image's identity";
  } catch (const util::HashGeneratorException& error) {
    EXPECT_EQ(error.what(), "SHA1 for " + file_ + " does not exist");
  }
}

TEST_F(ImageDigestTest, IsNoneOfAFileAboveFourGiB) {
  std::filesystem::resize_file(file_, (std::uintmax_t{4} << 30) + 1);
  EXPECT_THROW(static_cast<void>(ImageOf(file_).GetDigest()), util::HashGeneratorException);
}

TEST_F(ImageDigestTest, KeepsItsTextBesideTheDigest) {
  struct stat result {};
  ASSERT_EQ(stat(file_.c_str(), &result), 0);
  const ImageInfo image(util::DeviceText(result.st_dev), 644, result.st_ino, file_, 0, "root", "root", 0, "524288");
  EXPECT_EQ(image.GetDigest(), kAbcSha256);
  EXPECT_EQ(image.GetText(), "524288");
  EXPECT_EQ(ImageOf(file_).GetText(), "");
}

}  // namespace
}  // namespace zagent::common
