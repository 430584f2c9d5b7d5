#include "src/fim/ContentReader.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/src/util/UniqueFd.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fim::internal {
namespace {

class ContentReaderTest : public testing::Test {
 protected:
  // The object of an event on the file as it is now.
  static common::ImageInfo LookedUp(const std::string& path) {
    struct stat stat {};
    EXPECT_EQ(lstat(path.c_str(), &stat), 0);
    return {path, stat};
  }

  fakes::TempFolder folder_;
};

TEST_F(ContentReaderTest, AFileOfExactlyTheLimitIsCaptured) {
  const std::string text(51'200, 'x');
  const FileContent content = ReadFileContent(LookedUp(folder_.Write("file", text)));
  EXPECT_EQ(content.status, "READ_SUCCESSFUL");
  EXPECT_EQ(std::string(content.bytes.begin(), content.bytes.end()), text);
}

TEST_F(ContentReaderTest, AFileOfOneByteMoreIsNot) {
  const FileContent content = ReadFileContent(LookedUp(folder_.Write("file", std::string(51'201, 'x'))));
  EXPECT_EQ(content.status, "MAX_SIZE_LIMIT_REACHED");
  EXPECT_TRUE(content.bytes.empty());
}

// As with a file that grows while it is read: what its size was says nothing.
TEST_F(ContentReaderTest, AFileThatHoldsMoreThanItsSizeSaysIsNot) {
  constexpr std::size_t kPages = 400;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const memory = mmap(nullptr, kPages * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  // Each of them is some hundred bytes of the list of the process' mappings.
  for (std::size_t i = 0; i < kPages; i += 2) {
    ASSERT_EQ(mprotect(static_cast<char*>(memory) + i * page, page, PROT_NONE), 0);
  }
  const common::ImageInfo list = LookedUp("/proc/self/smaps");
  const FileContent content = ReadFileContent(list);
  EXPECT_EQ(content.status, "MAX_SIZE_LIMIT_REACHED");
  EXPECT_TRUE(content.bytes.empty());
  EXPECT_EQ(munmap(memory, kPages * page), 0);
}

TEST_F(ContentReaderTest, AnEmptyFileIsReadSuccessfully) {
  const FileContent content = ReadFileContent(LookedUp(folder_.Write("file", "")));
  EXPECT_EQ(content.status, "READ_SUCCESSFUL");
  EXPECT_TRUE(content.bytes.empty());
}

TEST_F(ContentReaderTest, AMissingFileIsAReadFailureAndNothingToLog) {
  const fakes::LogCapture log;
  EXPECT_EQ(ReadFileContent(common::ImageInfo(folder_ / "gone")).status, "READ_FAILURE");
  EXPECT_EQ(log.All(), "");
}

TEST_F(ContentReaderTest, AFileThatWasReplacedIsAReadFailure) {
  const std::string path = folder_.Write("file", "the object of the event");
  const common::ImageInfo object = LookedUp(path);
  folder_.Write("other", "somebody else's secret");
  ASSERT_EQ(rename((folder_ / "other").c_str(), path.c_str()), 0);
  const FileContent content = ReadFileContent(object);
  EXPECT_EQ(content.status, "READ_FAILURE");
  EXPECT_TRUE(content.bytes.empty());
}

TEST_F(ContentReaderTest, AFileOfTheSameInodeOnAnotherDeviceIsAReadFailure) {
  const common::ImageInfo here = LookedUp(folder_.Write("file", "text"));
  const common::ImageInfo elsewhere("7f:7f", 644, here.GetInode(), here.GetPath(), 0, "", "", 0, "");
  EXPECT_EQ(ReadFileContent(elsewhere).status, "READ_FAILURE");
}

TEST_F(ContentReaderTest, AFileWhoseDeviceNobodyToldIsKnownByItsInode) {
  const common::ImageInfo here = LookedUp(folder_.Write("file", "text"));
  const common::ImageInfo anywhere("", 644, here.GetInode(), here.GetPath(), 0, "", "", 0, "");
  EXPECT_EQ(ReadFileContent(anywhere).status, "READ_SUCCESSFUL");
}

TEST_F(ContentReaderTest, ALinkInTheFilesPlaceIsNotFollowedToAnotherFile) {
  const std::string path = folder_.Write("file", "text");
  const common::ImageInfo object = LookedUp(path);
  folder_.Write("secret", "secret");
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink((folder_ / "secret").c_str(), path.c_str()), 0);
  EXPECT_EQ(ReadFileContent(object).status, "READ_FAILURE");
}

TEST_F(ContentReaderTest, OnlyRegularFilesAreReadAndAFifoDoesNotHang) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(ReadFileContent(LookedUp(fifo)).status, "READ_FAILURE");
  EXPECT_EQ(ReadFileContent(LookedUp(folder_.Path())).status, "READ_FAILURE");
  EXPECT_EQ(ReadFileContent(LookedUp("/dev/zero")).status, "READ_FAILURE");
}

TEST_F(ContentReaderTest, WhatIsNotTheObjectOfTheEventIsNotEvenOpened) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string path = folder_.Write("file", "text");
  const common::ImageInfo object = LookedUp(path);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink(fifo.c_str(), path.c_str()), 0);
  const common::util::UniqueFd opened(inotify_init1(IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(opened.Get(), fifo.c_str(), IN_OPEN), 0);

  EXPECT_EQ(ReadFileContent(object).status, "READ_FAILURE");
  EXPECT_EQ(ReadFileContent(LookedUp(fifo)).status, "READ_FAILURE");
  inotify_event event{};
  EXPECT_EQ(read(opened.Get(), &event, sizeof(event)), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ContentReaderTest, AFileThatWasOpenedThroughALinkIsRead) {
  const std::string path = folder_.Write("file", "text");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  common::ImageInfo object = LookedUp(path);
  object.SetPath(link);
  EXPECT_EQ(ReadFileContent(object).status, "READ_SUCCESSFUL");
}

}  // namespace
}  // namespace zagent::fim::internal
