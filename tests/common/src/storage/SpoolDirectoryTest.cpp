#include "common/src/storage/SpoolDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "common/src/storage/StorageResult.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::internal {
namespace {

// A file system that lists a folder in an order of its own.
class ScatteredFiles final : public FileCalls {
 public:
  int ListFolder(const char*, std::vector<std::string>& names) override {
    names = {"events.0012", "events.0003", "events.9999", "events.0100"};
    return 0;
  }
};

class SpoolDirectoryTest : public ::testing::Test {
 protected:
  const fakes::TempFolder folder_;
  const SpoolDirectory directory_{folder_.Path(), "events", 9999};
};

TEST_F(SpoolDirectoryTest, NamesCarryTheIndexInFourDigits) {
  EXPECT_EQ(directory_.FileName(7), folder_ / "events.0007");
  EXPECT_EQ(directory_.FileName(9999), folder_ / "events.9999");
  EXPECT_THROW((void)directory_.FileName(0), StorageException);
  try {
    (void)directory_.FileName(10'000);
    FAIL() << "nothing was thrown";
  } catch (const StorageException& error) {
    EXPECT_STREQ(error.what(), "SpoolStorage: File index out of range");
  }
}

TEST_F(SpoolDirectoryTest, KnowsItsOwnNames) {
  EXPECT_EQ(directory_.IndexOf("events.0007"), 7U);
  EXPECT_EQ(directory_.IndexOf("events.9999"), 9999U);
  for (const char* foreign : {"events.abc", "events.0", "events.123", "events.00001", "events.0000", "events.+123",
                              "events.-001", "events. 123", "events.0x12", "events-0007", "event.00007", "Events.0007",
                              "events.00 7", "events.", "events", ""}) {
    EXPECT_EQ(directory_.IndexOf(foreign), 0U) << foreign;
  }
  const SpoolDirectory small(folder_.Path(), "events", 5);
  EXPECT_EQ(small.IndexOf("events.0005"), 5U);
  EXPECT_EQ(small.IndexOf("events.0006"), 0U);
}

TEST_F(SpoolDirectoryTest, APathIsItsOwnOnlyInItsFolder) {
  EXPECT_EQ(directory_.IndexOfPath(folder_ / "events.0007"), 7U);
  EXPECT_EQ(directory_.IndexOfPath("/elsewhere/events.0007"), 0U);
  EXPECT_EQ(directory_.IndexOfPath("events.0007"), 0U);
  EXPECT_EQ(directory_.IndexOfPath(folder_.Path() + "/"), 0U);
}

TEST_F(SpoolDirectoryTest, ListsRegularFilesInTheirOrder) {
  folder_.Write("events.0012", "four");
  folder_.Write("events.0003", "one");
  folder_.Write("events.0004x", "foreign");
  folder_.Write("other.0001", "foreign");
  std::filesystem::create_directory(folder_ / "events.0001");
  std::filesystem::create_symlink(folder_ / "other.0001", folder_ / "events.0002");
  const auto entries = directory_.List("SpoolStorage::Test");
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].index, 3U);
  EXPECT_EQ(entries[0].size, 3U);
  EXPECT_EQ(entries[1].index, 12U);
  EXPECT_EQ(entries[1].size, 4U);
  EXPECT_TRUE(directory_.Stat(3));
  EXPECT_FALSE(directory_.Stat(1));
  EXPECT_FALSE(directory_.Stat(2));
  EXPECT_FALSE(directory_.Stat(4));
}

TEST_F(SpoolDirectoryTest, TheOldestComesFirstInWhateverOrderTheFileSystemTellsThem) {
  for (const char* name : {"events.0003", "events.0012", "events.0100", "events.9999"}) folder_.Write(name, "x");
  ScatteredFiles files;
  const SpoolDirectory directory(folder_.Path(), "events", 9999, files);
  std::vector<std::uint64_t> indices;
  for (const auto& entry : directory.List("SpoolStorage::Test")) indices.push_back(entry.index);
  EXPECT_EQ(indices, (std::vector<std::uint64_t>{3, 12, 100, 9999}));
}

TEST_F(SpoolDirectoryTest, AFolderThatIsGoneIsAnErrorWithItsCode) {
  const SpoolDirectory gone(folder_ / "gone", "events", 9999);
  try {
    (void)gone.List("SpoolStorage::Test");
    FAIL() << "nothing was thrown";
  } catch (const StorageException& error) {
    EXPECT_STREQ(error.what(), "SpoolStorage::Test: No such file or directory (2)");
    EXPECT_EQ(error.Code(), ENOENT);
  }
}

}  // namespace
}  // namespace zagent::common::internal
