#include "common/src/storage/FileOperations.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/FileSizeLimit.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::FaultyFiles;
using fakes::FileSizeLimit;
using fakes::ToBytes;
using fakes::ToText;
using Poco::Message;

class FileOperationsTest : public ::testing::Test {
 protected:
  const fakes::TempFolder folder_;
  const std::string path_ = folder_ / "item";
  const fakes::LogCapture log_;
};

TEST_F(FileOperationsTest, WriteCreatesAPrivateFileAndHandsItsAttributesBack) {
  const auto result = WriteFile(path_, ToBytes("hello"));
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_EQ(result->path, path_);
  EXPECT_EQ(ToText(result->data), "hello");
  ASSERT_TRUE(result->stat_info);
  EXPECT_EQ(result->stat_info->st_size, 5);
  EXPECT_EQ(result->stat_info->st_mode & 07777, 0600U);
  EXPECT_EQ(folder_.Read("item"), "hello");
}

TEST_F(FileOperationsTest, WriteNeverOverwrites) {
  folder_.Write("item", "old");
  const auto result = WriteFile(path_, ToBytes("new"));
  EXPECT_EQ(result->code, StorageCode::AlreadyExists);
  EXPECT_EQ(ToText(result->data), "new") << "the data was not handed back";
  EXPECT_FALSE(result->stat_info);
  EXPECT_EQ(folder_.Read("item"), "old");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to create " + path_ + ": File exists (17)"))
      << log_.All();
}

TEST_F(FileOperationsTest, WriteDoesNotFollowADanglingLink) {
  std::filesystem::create_symlink(folder_ / "elsewhere", path_);
  EXPECT_EQ(WriteFile(path_, ToBytes("new"))->code, StorageCode::AlreadyExists);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "elsewhere"));
}

TEST_F(FileOperationsTest, AWriteThatIsCutShortLeavesItsPartAndSaysWhichFileItIs) {
  std::unique_ptr<StorageResult> result;
  {
    const FileSizeLimit limit(3);
    result = WriteFile(path_, ToBytes("hello"));
  }
  EXPECT_EQ(result->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(result->data), "hello");
  ASSERT_TRUE(result->stat_info);
  EXPECT_EQ(result->stat_info->st_size, 3);
  EXPECT_EQ(folder_.Read("item"), "hel");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to write to " + path_ + ": File too large (27)"))
      << log_.All();
}

TEST_F(FileOperationsTest, AppendAddsToTheFileOfTheEarlierResult) {
  const auto written = WriteFile(path_, ToBytes("one"));
  const auto appended = AppendFile(path_, ToBytes("two"), *written);
  EXPECT_EQ(appended->code, StorageCode::Success);
  ASSERT_TRUE(appended->stat_info);
  EXPECT_EQ(appended->stat_info->st_size, 6);
  EXPECT_EQ(AppendFile(path_, ToBytes("!"), *appended)->code, StorageCode::Success);
  EXPECT_EQ(folder_.Read("item"), "onetwo!");
}

TEST_F(FileOperationsTest, AppendNeverCreatesAFile) {
  const auto written = WriteFile(path_, ToBytes("one"));
  std::filesystem::remove(path_);
  const auto appended = AppendFile(path_, ToBytes("two"), *written);
  EXPECT_EQ(appended->code, StorageCode::NotFound);
  EXPECT_EQ(ToText(appended->data), "two");
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "Storage: Failed to append data to " + path_ + ": No such file or directory (2)"))
      << log_.All();
}

TEST_F(FileOperationsTest, AppendLeavesAReplacedFileAlone) {
  const auto written = WriteFile(path_, ToBytes("one"));
  folder_.Write("other", "stranger");
  std::filesystem::rename(folder_ / "other", path_);
  EXPECT_EQ(AppendFile(path_, ToBytes("two"), *written)->code, StorageCode::FileReplaced);
  EXPECT_EQ(AppendFile(path_, ToBytes("two"), StorageResult())->code, StorageCode::FileReplaced);
  EXPECT_EQ(folder_.Read("item"), "stranger");
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "Storage: Failed to append data, file " + path_ + " was changed/replaced outside"))
      << log_.All();
}

TEST_F(FileOperationsTest, ReadGivesTheWholeFile) {
  // Larger than any buffer that is taken at once, and no multiple of one.
  const std::string text(300'001, 'x');
  folder_.Write("item", text);
  const auto result = ReadFile(path_);
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_EQ(ToText(result->data), text);
  EXPECT_EQ(result->path, path_);
  ASSERT_TRUE(result->stat_info);
  EXPECT_EQ(result->stat_info->st_size, 300'001);
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "Storage: Read upto 300001 bytes out of300001 from" + path_)) << log_.All();
}

TEST_F(FileOperationsTest, AnEmptyFileReadsAsNoData) {
  folder_.Write("item", "");
  const auto result = ReadFile(path_);
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_TRUE(result->data.empty());
  EXPECT_TRUE(result->stat_info);
}

TEST_F(FileOperationsTest, ReadSaysWhenThereIsNoFile) {
  const auto result = ReadFile(path_);
  EXPECT_EQ(result->code, StorageCode::NotFound);
  EXPECT_FALSE(result->stat_info);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to open " + path_ + ": No such file or directory (2)"))
      << log_.All();
  EXPECT_EQ(ReadFile(folder_.Write("file", "") + "/below")->code, StorageCode::NotAFile);
}

TEST_F(FileOperationsTest, OnlyRegularFilesAreReadAndNothingBlocks) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  for (const std::string& path : {path_, folder_.Path(), std::string("/dev/zero")}) {
    for (const auto& result : {ReadFile(path), ReadFileUpTo(path, 100)}) {
      EXPECT_EQ(result->code, StorageCode::Success) << path;
      EXPECT_TRUE(result->data.empty()) << path;
      EXPECT_TRUE(result->stat_info) << path;
    }
  }
  // Nobody reads the FIFO: a writer that waited would wait for ever.
  EXPECT_EQ(AppendFile(path_, ToBytes("x"), StorageResult())->code, StorageCode::Unknown);
}

TEST_F(FileOperationsTest, ReadUpToStopsAtTheGivenNumberOfBytes) {
  folder_.Write("item", "0123456789");
  EXPECT_EQ(ToText(ReadFileUpTo(path_, 4)->data), "0123");
  EXPECT_EQ(ToText(ReadFileUpTo(path_, 10)->data), "0123456789");
  const auto generous = ReadFileUpTo(path_, std::size_t{1} << 40);
  EXPECT_EQ(ToText(generous->data), "0123456789");
  EXPECT_LT(generous->data.capacity(), std::size_t{1} << 20);
  EXPECT_TRUE(ReadFileUpTo(path_, 0)->data.empty());
  EXPECT_EQ(ReadFileUpTo(folder_ / "none", 4)->code, StorageCode::NotFound);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to open " + (folder_ / "none")));
}

TEST_F(FileOperationsTest, AFileThatShrankIsNoFailure) {
  folder_.Write("item", "12345");
  const util::UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat before {};
  ASSERT_EQ(fstat(fd.Get(), &before), 0);
  std::filesystem::resize_file(path_, 2);
  const auto result = ReadFileDescriptor(path_, before, fd.Get(), 5);
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_EQ(ToText(result->data), "12");
  ASSERT_TRUE(result->stat_info);
  EXPECT_EQ(result->stat_info->st_ino, before.st_ino);
}

TEST_F(FileOperationsTest, AFailingReadIsACodeAndALine) {
  folder_.Write("item", "12345");
  const util::UniqueFd write_only(open(path_.c_str(), O_WRONLY | O_CLOEXEC));
  struct stat info {};
  ASSERT_EQ(fstat(write_only.Get(), &info), 0);
  const auto result = ReadFileDescriptor(path_, info, write_only.Get(), 5);
  EXPECT_EQ(result->code, StorageCode::Unknown);
  EXPECT_TRUE(result->data.empty());
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to read from " + path_ + ": Bad file descriptor (9)"))
      << log_.All();
}

// One call of the system fails at a time.
class FaultyFileOperationsTest : public FileOperationsTest {
 protected:
  // Code and log line of an operation whose calls of a kind fail with EIO.
  void ExpectIoError(FaultyFiles::Call call, const std::function<std::unique_ptr<StorageResult>()>& operation,
                     const std::string& line) {
    disk_.Fail(call, EIO);
    EXPECT_EQ(operation()->code, StorageCode::IOError) << line;
    EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: " + line + path_ + ": Input/output error (5)")) << log_.All();
    disk_.fault = nullptr;
  }

  FaultyFiles disk_;
};

TEST_F(FaultyFileOperationsTest, EveryCallThatFailsHasItsCodeAndItsLine) {
  using Call = FaultyFiles::Call;
  const auto write = [&] { return WriteFile(path_, ToBytes("text"), disk_); };
  ExpectIoError(Call::Open, write, "Storage: Failed to create ");
  ExpectIoError(Call::Write, write, "Storage: Failed to write to ");
  std::filesystem::remove(path_);
  ExpectIoError(
      Call::Fsync, [&] { return WriteFile(path_, ToBytes("text"), disk_, Durability::OnDisk); },
      "Storage: Failed to sync ");
  const auto written = ReadFile(path_);
  const auto append = [&] { return AppendFile(path_, ToBytes("more"), *written, disk_); };
  ExpectIoError(Call::Open, append, "Storage: Failed to append data to ");
  ExpectIoError(Call::Fstat, append, "Storage: Failed to stat file ");
  ExpectIoError(Call::Write, append, "Storage: Failed to write to ");
  const auto read = [&] { return ReadFile(path_, disk_); };
  ExpectIoError(Call::Open, read, "Storage: Failed to open ");
  ExpectIoError(Call::Fstat, read, "Storage: Failed to stat ");
  ExpectIoError(Call::Read, read, "Storage: Failed to read from ");
  const auto read_up_to = [&] { return ReadFileUpTo(path_, 2, disk_); };
  ExpectIoError(Call::Open, read_up_to, "Storage: Failed to open ");
  ExpectIoError(Call::Fstat, read_up_to, "FileStorage: Failed to stat ");
  EXPECT_EQ(folder_.Read("item"), "text");
}

TEST_F(FaultyFileOperationsTest, AWriteWhoseAttributesCannotBeHadIsASuccessWithoutThem) {
  disk_.Fail(FaultyFiles::Call::Fstat, EIO);
  const auto result = WriteFile(path_, ToBytes("text"), disk_);
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_FALSE(result->stat_info);
}

TEST_F(FaultyFileOperationsTest, ASignalInTheMiddleIsNoFailure) {
  disk_.max_bytes = 1;
  std::map<FaultyFiles::Call, int> calls;
  disk_.fault = [&](FaultyFiles::Call call, const std::string&) {
    if (call == FaultyFiles::Call::Fstat) return 0;
    return ++calls[call] % 3 != 0 ? EINTR : 0;  // one signal may follow another
  };
  const auto written = WriteFile(path_, ToBytes("some text"), disk_, Durability::OnDisk);
  EXPECT_EQ(written->code, StorageCode::Success);
  EXPECT_EQ(AppendFile(path_, ToBytes(" and more"), *written, disk_)->code, StorageCode::Success);
  EXPECT_EQ(ToText(ReadFile(path_, disk_)->data), "some text and more");
  EXPECT_EQ(FolderSync(folder_.Path(), disk_)(), 0);
  EXPECT_EQ(disk_.Synced(), (std::vector<std::string>{path_, folder_.Path()}));
}

TEST_F(FaultyFileOperationsTest, ADiskThatTakesNothingFailsTheWriteWhateverFailedBefore) {
  disk_.max_bytes = 0;
  disk_.fault = [](FaultyFiles::Call call, const std::string&) {
    if (call == FaultyFiles::Call::Write) errno = EEXIST;
    return 0;
  };
  EXPECT_EQ(WriteFile(path_, ToBytes("text"), disk_)->code, StorageCode::IOError);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to write to " + path_ + ": Input/output error (5)"))
      << log_.All();
}

TEST_F(FaultyFileOperationsTest, NoProgramThatIsStartedMeanwhileInheritsAFile) {
  int looked = 0;
  disk_.fault = [&](FaultyFiles::Call call, const std::string& path) {
    if (call == FaultyFiles::Call::Open) return 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code closed_already;
      if (std::filesystem::read_symlink(entry.path(), closed_already) != path) continue;
      const int fd = std::stoi(entry.path().filename().string());
      EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << path;
      ++looked;
    }
    return 0;
  };
  const auto written = WriteFile(path_, ToBytes("text"), disk_);
  EXPECT_GT(std::exchange(looked, 0), 0);
  AppendFile(path_, ToBytes("more"), *written, disk_);
  EXPECT_GT(std::exchange(looked, 0), 0);
  EXPECT_EQ(ToText(ReadFile(path_, disk_)->data), "textmore");
  EXPECT_GT(std::exchange(looked, 0), 0);
  EXPECT_EQ(FolderSync(folder_.Path(), disk_)(), 0);
  EXPECT_GT(looked, 0);
}

TEST_F(FaultyFileOperationsTest, OnlyAWriteThatIsToBeOnDiskIsSynced) {
  WriteFile(path_, ToBytes("text"), disk_);
  EXPECT_TRUE(disk_.Synced().empty());
  std::filesystem::remove(path_);
  WriteFile(path_, ToBytes("text"), disk_, Durability::OnDisk);
  EXPECT_EQ(disk_.Synced(), (std::vector<std::string>{path_}));
}

// A folder whose names are synced again and again, and which folder that was each time.
class FolderSyncTest : public ::testing::Test {
 protected:
  class Disk final : public FileCalls {
   public:
    int Open(const char* path, int flags, mode_t mode) override {
      opened.emplace_back(path);
      return FileCalls::Open(path, flags, mode);
    }
    int Fstat(int fd, struct stat* info) override {
      if (fstat_error == 0) return FileCalls::Fstat(fd, info);
      errno = fstat_error;
      return -1;
    }
    int Stat(const char* path, struct stat* info) override {
      const int result = FileCalls::Stat(path, info);
      if (mounted_over) ++info->st_dev;
      return result;
    }
    int Fsync(int fd) override {
      struct stat info {};
      EXPECT_EQ(fstat(fd, &info), 0);
      synced.push_back(info.st_ino);
      errno = fsync_error;
      return fsync_error == 0 ? 0 : -1;
    }
    std::vector<std::string> opened;
    std::vector<ino_t> synced;
    int fstat_error = 0;
    int fsync_error = 0;
    bool mounted_over = false;  // another file system's folder bears the same number at the path
  };

  FolderSyncTest() { std::filesystem::create_directory(path_); }
  [[nodiscard]] ino_t Inode() const {
    struct stat info {};
    EXPECT_EQ(stat(path_.c_str(), &info), 0);
    return info.st_ino;
  }

  const fakes::TempFolder folder_;
  const std::string path_ = folder_ / "spool";
  Disk disk_;
  FolderSync sync_{path_, disk_};
  const fakes::LogCapture log_;
};

TEST_F(FolderSyncTest, OpensAFolderOnceForManySyncs) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.opened, (std::vector<std::string>{path_}));
  EXPECT_EQ(disk_.synced, std::vector<ino_t>(3, Inode()));
}

TEST_F(FolderSyncTest, SyncsTheFolderThatHasTakenTheOthersPlace) {
  EXPECT_EQ(sync_(), 0);
  const ino_t first = Inode();
  std::filesystem::rename(path_, folder_ / "away");
  std::filesystem::create_directory(path_);
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.synced, (std::vector<ino_t>{first, Inode()}));
  // Removed, a folder gives its number to the next one, but not while it is open here.
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.synced.back(), Inode());
  EXPECT_EQ(disk_.opened.size(), 3U);
}

TEST_F(FolderSyncTest, AFolderThatIsGoneFailsAndOneThatIsBackIsSynced) {
  EXPECT_EQ(sync_(), 0);
  std::filesystem::rename(path_, folder_ / "away");
  EXPECT_EQ(sync_(), ENOENT);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to sync " + path_ + ": No such file or directory (2)"))
      << log_.All();
  std::filesystem::rename(folder_ / "away", path_);
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.synced, std::vector<ino_t>(2, Inode()));
}

TEST_F(FolderSyncTest, AFailedSyncIsToldAndTheNextOneOpensTheFolderAnew) {
  disk_.fsync_error = EIO;
  EXPECT_EQ(sync_(), EIO);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Storage: Failed to sync " + path_ + ": Input/output error (5)"))
      << log_.All();
  disk_.fsync_error = 0;
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.opened.size(), 2U);
}

TEST_F(FolderSyncTest, AFileSystemThatSyncsNoFoldersIsNoFailure) {
  disk_.fsync_error = EINVAL;
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.opened.size(), 1U);
}

TEST_F(FolderSyncTest, AFolderOfAnotherFileSystemIsAnotherOneWhateverItsNumber) {
  EXPECT_EQ(sync_(), 0);
  disk_.mounted_over = true;
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.opened.size(), 2U);
}

TEST_F(FolderSyncTest, AFolderThatCannotBeKnownAgainIsOpenedForEachSync) {
  disk_.fsync_error = EIO;
  EXPECT_EQ(sync_(), EIO);
  disk_.fsync_error = 0;
  disk_.fstat_error = EIO;
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(sync_(), 0);
  EXPECT_EQ(disk_.opened.size(), 3U);
  EXPECT_EQ(disk_.synced, std::vector<ino_t>(3, Inode()));
}

TEST(StorageCodeTest, MapsErrnoToCodes) {
  EXPECT_EQ(StorageCodeFromErrno(ENOENT), StorageCode::NotFound);
  EXPECT_EQ(StorageCodeFromErrno(EEXIST), StorageCode::AlreadyExists);
  EXPECT_EQ(StorageCodeFromErrno(EIO), StorageCode::IOError);
  EXPECT_EQ(StorageCodeFromErrno(ENOTDIR), StorageCode::NotAFile);
  EXPECT_EQ(StorageCodeFromErrno(EISDIR), StorageCode::NotAFile);
  EXPECT_EQ(StorageCodeFromErrno(EINVAL), StorageCode::FileReplaced);
  EXPECT_EQ(StorageCodeFromErrno(EPERM), StorageCode::PermissionDenied);
  EXPECT_EQ(StorageCodeFromErrno(EACCES), StorageCode::PermissionDenied);
  EXPECT_EQ(StorageCodeFromErrno(EBADF), StorageCode::Unknown);
  EXPECT_EQ(StorageCodeFromErrno(23), StorageCode::Unknown);
  EXPECT_EQ(StorageCodeFromErrno(ENOSPC), StorageCode::Unknown);
  EXPECT_EQ(StorageCodeFromErrno(-1), StorageCode::Unknown);
  EXPECT_EQ(StorageCodeFromErrno(0), StorageCode::Unknown) << "a failure without a reason is a failure still";
}

TEST(StorageExceptionTest, JoinsItsMessageWithTheWordsOfTheCode) {
  const StorageException error = StorageException::FromErrno("Spool", ENOENT);
  EXPECT_STREQ(error.what(), "Spool: No such file or directory (2)");
  EXPECT_EQ(error.Code(), ENOENT);
  EXPECT_STREQ(StorageException("alone").what(), "alone");
  EXPECT_EQ(StorageException("alone").Code(), 0);
}

}  // namespace
}  // namespace zagent::common
