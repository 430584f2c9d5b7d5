#include "src/edr/process/StatHelper.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

class StatHelperTest : public ::testing::Test {
 protected:
  static ImageInfo ImageOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(lstat(path.c_str(), &result), 0);
    return {path, result};
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
};

TEST_F(StatHelperTest, ReadsTheFileAsItIsNow) {
  const std::string file = folder_.Write("f", "abc");
  const ImageInfo image = ImageOf(file);
  folder_.Write("f", "abcdef");
  const auto result = StatImage(image);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->st_size, 6);
}

TEST_F(StatHelperTest, AnswersNothingForAFileThatIsGone) {
  const std::string file = folder_.Write("f", "abc");
  const ImageInfo image = ImageOf(file);
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(StatImage(image), nullptr);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to stat " + file + " (No such file or directory (2))"));
}

TEST_F(StatHelperTest, RefusesAnotherFileInItsPlace) {
  const std::string file = folder_.Write("f", "abc");
  const ImageInfo image = ImageOf(file);
  const std::string other = folder_.Write("other", "xyz");
  ASSERT_EQ(rename(other.c_str(), file.c_str()), 0);
  try {
    static_cast<void>(StatImage(image));
    FAIL() << "took another file for the image's";
  } catch (const StatHelperException& error) {
    EXPECT_EQ(error.what(), "Actual file path " + file + " differs from the ImageInfo.");
  }
}

TEST_F(StatHelperTest, RefusesTheSameInodeNumberOnAnotherDevice) {
  const std::string file = folder_.Write("f", "abc");
  const ImageInfo there = ImageOf(file);
  const ImageInfo elsewhere("ff:ff", 644, there.GetInode(), file, 0, "", "", 0, "");
  EXPECT_THROW(static_cast<void>(StatImage(elsewhere)), StatHelperException);
}

TEST_F(StatHelperTest, LooksAtALinkItselfAndNotBehindIt) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(folder_.Write("f", "abc").c_str(), link.c_str()), 0);
  const auto result = StatImage(ImageOf(link));
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(S_ISLNK(result->st_mode));
}

}  // namespace
}  // namespace zagent::common
