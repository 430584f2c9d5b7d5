#include "common/src/util/FileAttributes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::util {
namespace {

class FileAttributesTest : public ::testing::Test {
 protected:
  static struct stat StatOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(stat(path.c_str(), &result), 0);
    return result;
  }
  // Reads only if the file is the one with `identity`.
  static std::string ReadAs(const std::string& path, const struct stat& identity) {
    return ReadFileSystemAttributes(path, DeviceText(identity.st_dev), identity.st_ino);
  }
  static std::string Read(const std::string& path) { return ReadAs(path, StatOf(path)); }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  std::string file_ = folder_.Write("f", "abc");
};

TEST_F(FileAttributesTest, WritesTheFlagsAsADecimalNumber) {
  const UniqueFd fd(open(file_.c_str(), O_RDONLY | O_CLOEXEC));
  int flags = 0;
  if (ioctl(fd.Get(), FS_IOC_GETFLAGS, &flags) != 0) {
    // This file system has none; the words of that are tested below.
    EXPECT_EQ(Read(file_), "");
    return;
  }
  flags ^= FS_NODUMP_FL;
  ASSERT_EQ(ioctl(fd.Get(), FS_IOC_SETFLAGS, &flags), 0) << ErrnoText(errno);
  EXPECT_EQ(Read(file_), std::to_string(flags));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Reading file system attributes from '" + file_ + "'"));
}

TEST_F(FileAttributesTest, TellsThatAFileSystemHasNoAttributes) {
  EXPECT_EQ(Read("/proc/self/status"), "");
  EXPECT_TRUE(log_.Has("Failed to read file system attributes for '/proc/self/status': " + ErrnoText(ENOTTY)))
      << log_.All();
}

TEST_F(FileAttributesTest, TellsWhyAFileCannotBeOpened) {
  const struct stat before = StatOf(file_);
  ASSERT_EQ(unlink(file_.c_str()), 0);
  EXPECT_EQ(ReadAs(file_, before), "");
  EXPECT_TRUE(log_.Has("Failed to open file '" + file_ + "'. No such file or directory (2)")) << log_.All();
}

TEST_F(FileAttributesTest, DoesNotReadThoseOfAFileThatReplacedTheOneMeant) {
  const struct stat before = StatOf(file_);
  ASSERT_EQ(std::rename(folder_.Write("other", "xyz").c_str(), file_.c_str()), 0);
  EXPECT_EQ(ReadAs(file_, before), "");
  EXPECT_TRUE(log_.Has("The file at '" + file_ + "' has been replaced")) << log_.All();
}

TEST_F(FileAttributesTest, DoesNotReadThoseOfTheSameInodeNumberOnAnotherDevice) {
  EXPECT_EQ(ReadFileSystemAttributes(file_, "ff:ff", StatOf(file_).st_ino), "");
  EXPECT_TRUE(log_.Has("The file at '" + file_ + "' has been replaced"));
}

TEST_F(FileAttributesTest, ReadsNoneOfASymbolicLink) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(file_.c_str(), link.c_str()), 0);
  EXPECT_EQ(ReadAs(link, StatOf(file_)), "");
  EXPECT_TRUE(log_.Has("Not reading attributes symlink '" + link + "'")) << log_.All();
}

TEST_F(FileAttributesTest, NeitherWaitsForAFifoNorOpensADevice) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(Read(fifo), "");
  EXPECT_EQ(Read("/dev/zero"), "");
  EXPECT_FALSE(log_.Has("Failed to")) << log_.All();
}

TEST_F(FileAttributesTest, ClosesItsDescriptorOnEveryPath) {
  const int before = dup(0);
  close(before);
  Read(file_);
  Read("/proc/self/status");
  ReadFileSystemAttributes(file_, "ff:ff", 1);
  ReadFileSystemAttributes(folder_ / "missing", "ff:ff", 1);
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace zagent::common::util
