#include "common/src/storage/SpoolFiles.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::internal {
namespace {

using fakes::FaultyFiles;
using Call = FaultyFiles::Call;
using fakes::ToBytes;
using fakes::ToText;
using Poco::Message;

// No file or folder can be opened while it lives.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &old_);
    const rlimit none{0, old_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &old_); }

 private:
  rlimit old_{};
};

class SpoolFilesTest : public ::testing::Test {
 protected:
  SpoolFilesTest() { limits_.Apply(1, 600, 100); }

  SpoolFiles& Open(std::uint64_t max_index = 9999) {
    files_ = std::make_unique<SpoolFiles>(SpoolDirectory(folder_.Path(), "events", max_index, disk_), limits_, disk_);
    return *files_;
  }

  [[nodiscard]] std::string Path(std::uint64_t index) const {
    return SpoolDirectory(folder_.Path(), "events", 9999).FileName(index);
  }

  void Put(std::uint64_t index, const std::string& text) const {
    folder_.Write(std::filesystem::path(Path(index)).filename(), text);
  }

  // Content of the spool's names by index; "-" where there is no regular file.
  [[nodiscard]] std::string Content(std::uint64_t from, std::uint64_t to) const {
    std::string all;
    for (std::uint64_t index = from; index <= to; ++index) {
      const bool regular = std::filesystem::symlink_status(Path(index)).type() == std::filesystem::file_type::regular;
      all += (all.empty() ? "" : " ") +
             (regular ? folder_.Read(std::filesystem::path(Path(index)).filename()) : std::string("-"));
    }
    return all;
  }

  std::unique_ptr<StorageResult> Store(const std::string& text) {
    Bytes payload = ToBytes(text);
    return files_->Store(payload);
  }

  // Text and code of what ReadOldestFile throws.
  std::string ReadError() {
    try {
      files_->ReadOldestFile();
    } catch (const StorageException& error) {
      return error.what();
    }
    return "";
  }

  const fakes::TempFolder folder_;
  FaultyFiles disk_;
  SpoolLimits limits_;
  std::unique_ptr<SpoolFiles> files_;
  const fakes::LogCapture log_;
};

TEST_F(SpoolFilesTest, FindsTheFilesOfAnEarlierRun) {
  Put(7, "seven");
  Put(3, "three");
  SpoolFiles& files = Open();
  EXPECT_EQ(files.FirstIndex(), 3U);
  EXPECT_EQ(files.LastIndex(), 7U);
  EXPECT_EQ(files.DiskUsage(), 10U);
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "]: SpoolStorage: File indices refreshed [3 - 7]")) << log_.All();
  EXPECT_EQ(Store("eight")->path, Path(8));
  EXPECT_EQ(files.LastIndex(), 8U);
  EXPECT_EQ(files.DiskUsage(), 15U);
}

TEST_F(SpoolFilesTest, IgnoresForeignFiles) {
  for (const char* name : {"events.abc", "events.0", "events.123", "events.00012", "others.0001"}) {
    folder_.Write(name, "foreign");
  }
  SpoolFiles& files = Open();
  EXPECT_EQ(files.FirstIndex(), 0U);
  EXPECT_EQ(files.DiskUsage(), 0U);
  EXPECT_TRUE(files.Clear());
  EXPECT_EQ(folder_.Read("events.123"), "foreign");
}

TEST_F(SpoolFilesTest, AnEmptySpoolBeginsAtOneWhateverNameItsFirstFileGets) {
  SpoolFiles& files = Open();
  std::filesystem::create_directory(Path(1));
  EXPECT_EQ(Store("text")->path, Path(2));
  EXPECT_EQ(files.FirstIndex(), 1U);
  EXPECT_EQ(files.LastIndex(), 2U);
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "text");
}

TEST_F(SpoolFilesTest, GivesTheOldestFileFirst) {
  SpoolFiles& files = Open();
  Store("first");
  Store("second");
  auto read = files.ReadOldestFile();
  EXPECT_EQ(ToText(read->data), "first");
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Successfully read file: " + Path(1))) << log_.All();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "first") << "reading takes nothing away";
  EXPECT_TRUE(files.Delete(*read));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "Deleted file: " + Path(1) + " [1, 2]")) << log_.All();
  EXPECT_EQ(files.DiskUsage(), 6U);
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "second");
}

TEST_F(SpoolFilesTest, IsEmptyAgainWhenTheLastFileIsGone) {
  SpoolFiles& files = Open();
  Store("only");
  EXPECT_TRUE(files.Delete(*files.ReadOldestFile()));
  EXPECT_EQ(files.FirstIndex(), 0U);
  EXPECT_EQ(files.LastIndex(), 0U);
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: No such file or directory (2)");
  EXPECT_EQ(Store("next")->path, Path(1));
}

TEST_F(SpoolFilesTest, StepsOverAStaleFileInsteadOfOverwritingIt) {
  SpoolFiles& files = Open();
  Put(1, "stale");
  EXPECT_EQ(Store("new")->path, Path(2));
  EXPECT_EQ(Content(1, 2), "stale new");
  EXPECT_EQ(files.LastIndex(), 2U);
}

TEST_F(SpoolFilesTest, ASpoolWhoseFilesAreGoneIsEmptyWithoutAnErrorLine) {
  SpoolFiles& files = Open();
  Store("first");
  Store("second");
  std::filesystem::remove(Path(1));
  std::filesystem::remove(Path(2));
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: No such file or directory (2)");
  EXPECT_EQ(files.FirstIndex(), 0U);
  EXPECT_EQ(files.DiskUsage(), 0U);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
}

TEST_F(SpoolFilesTest, TheOldestIndexAdvancesOverMissingFiles) {
  SpoolFiles& files = Open();
  for (const char* text : {"a", "b", "c"}) Store(text);
  std::filesystem::remove(Path(1));
  std::filesystem::remove(Path(2));
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "c");
  EXPECT_EQ(files.FirstIndex(), 3U);
  EXPECT_EQ(files.DiskUsage(), 1U);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
}

TEST_F(SpoolFilesTest, AFileThatCannotBeReadDisappearsAndTheNextOneIsGiven) {
  disk_.fault = [this](Call call, const std::string& path) { return call == Call::Read && path != Path(2) ? EIO : 0; };
  Put(1, "bad");
  Put(2, "good");
  Put(3, "bad");
  SpoolFiles& files = Open();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "good");
  EXPECT_EQ(Content(1, 3), "- good bad");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorage: Failed to read file: " + Path(1))) << log_.All();
  std::filesystem::remove(Path(2));
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: Input/output error (5)");
  EXPECT_EQ(Content(1, 3), "- - -");
}

TEST_F(SpoolFilesTest, SaysWhatCannotBeDeleted) {
  disk_.fault = [](Call call, const std::string& path) {
    if (call != Call::Read) return 0;
    unlink(path.c_str());
    return EIO;
  };
  Put(1, "gone");
  Open();
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: Input/output error (5)");
  const std::string reason = Path(1) + ": No such file or directory (2)";
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorage: Failed to stat " + reason)) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorage: Failed to delete " + reason)) << log_.All();
}

TEST_F(SpoolFilesTest, AFileThatMayNotBeReadIsPassedAndStays) {
  disk_.fault = [this](Call call, const std::string& path) {
    return call == Call::Open && path == Path(1) ? EACCES : 0;
  };
  Put(1, "secret");
  Put(2, "open");
  SpoolFiles& files = Open();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "open");
  EXPECT_EQ(Content(1, 2), "secret open");
}

TEST_F(SpoolFilesTest, AGapBehindAFileThatMayNotBeReadIsPassedToo) {
  disk_.fault = [this](Call call, const std::string& path) {
    return call == Call::Open && path == Path(1) ? EACCES : 0;
  };
  Put(1, "secret");
  Put(3, "open");
  SpoolFiles& files = Open();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "open");
}

TEST_F(SpoolFilesTest, AFileThatGrewBehindItsBackTakesNoMoreFromTheUsageThanThereIs) {
  Put(1, "a");
  Put(2, "b");
  SpoolFiles& files = Open();
  Put(1, "much longer");
  EXPECT_TRUE(files.Delete(*files.ReadOldestFile()));
  EXPECT_EQ(files.FirstIndex(), 2U);
  EXPECT_EQ(files.DiskUsage(), 0U);
  EXPECT_TRUE(files.HasFreeSpace());
}

TEST_F(SpoolFilesTest, NeverReadsWhatIsNoRegularFile) {
  SpoolFiles& files = Open();
  for (const char* text : {"a", "b", "c", "d"}) Store(text);
  for (const std::uint64_t index : {1, 2, 3}) std::filesystem::remove(Path(index));
  std::filesystem::create_directory(Path(1));
  ASSERT_EQ(mkfifo(Path(2).c_str(), 0600), 0);
  std::filesystem::create_symlink(folder_.Write("secret", "secret"), Path(3));
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "d");
}

TEST_F(SpoolFilesTest, NeverFollowsALinkThatTakesAFilesPlaceAsItIsOpened) {
  Put(1, "first");
  Put(2, "second");
  const std::string secret = folder_.Write("secret", "secret");
  SpoolFiles& files = Open();
  disk_.fault = [&](Call call, const std::string& path) {
    if (call == Call::Open && path == Path(1)) {
      std::filesystem::remove(path);
      std::filesystem::create_symlink(secret, path);
    }
    return 0;
  };
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "second");
}

TEST_F(SpoolFilesTest, NeverReadsWhatTakesAFilesPlaceAsItIsOpened) {
  Put(1, "first");
  Put(2, "second");
  SpoolFiles& files = Open();
  disk_.fault = [&](Call call, const std::string& path) {
    if (call == Call::Open && path == Path(1)) {
      std::filesystem::remove(path);
      EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    }
    return 0;
  };
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "second");
}

TEST_F(SpoolFilesTest, AFileThatGrowsAsItIsOpenedIsHeldAgainstTheSameBound) {
  Put(1, "first");
  Put(2, "second");
  SpoolFiles& files = Open();
  disk_.fault = [&](Call call, const std::string& path) {
    if (call == Call::Open && path == Path(1)) std::filesystem::resize_file(path, 100 * 1024 * 1024);
    return 0;
  };
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "second");
  EXPECT_EQ(std::filesystem::file_size(folder_ / "events.aside"), 100U * 1024 * 1024);
}

TEST_F(SpoolFilesTest, AFileThatGrowsAsItIsReadGivesWhatItHeldWhenItWasOpened) {
  Put(1, "first");
  SpoolFiles& files = Open();
  disk_.fault = [&](Call call, const std::string& path) {
    if (call == Call::Read) std::filesystem::resize_file(path, 100 * 1024 * 1024);
    return 0;
  };
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "first");
}

TEST_F(SpoolFilesTest, AFileWhoseAttributesCannotBeHadIsSaidAndComesLater) {
  Put(1, "first");
  Put(2, "second");
  disk_.fault = [this](Call call, const std::string& path) { return call == Call::Lstat && path == Path(1) ? EIO : 0; };
  SpoolFiles& files = Open();
  EXPECT_EQ(files.FirstIndex(), 1U);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to stat " + Path(1) + ": Input/output error (5)"))
      << log_.All();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "second") << "it holds nothing up";
  EXPECT_FALSE(files.Clear()) << "one is left";
  disk_.fault = nullptr;
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "first");
}

TEST_F(SpoolFilesTest, AFolderThatCannotBeListedIsAnError) {
  Put(3, "three");
  SpoolFiles& files = Open();
  disk_.Fail(Call::List, EIO);
  const auto error_of = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const StorageException& error) {
      EXPECT_EQ(error.Code(), EIO);
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(error_of([&] { files.DefragFileIndices(); }), "SpoolStorage::DefragFileIndices: Input/output error (5)");
  EXPECT_EQ(error_of([&] { files.RefreshFileIndices(); }), "SpoolStorage::RefreshFileIndices: Input/output error (5)");
  EXPECT_EQ(files.FirstIndex(), 3U) << "what was known is forgotten";
}

TEST_F(SpoolFilesTest, DefragmentationClosesTheGapsAndKeepsTheOrder) {
  Put(2, "a");
  Put(5, "b");
  Put(6, "c");
  Put(9, "d");
  std::filesystem::create_directory(Path(3));
  SpoolFiles& files = Open();
  files.DefragFileIndices();
  EXPECT_EQ(Content(1, 9), "a b - c d - - - -");
  EXPECT_EQ(files.FirstIndex(), 1U);
  EXPECT_EQ(files.LastIndex(), 5U);
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Starting de-fragmentation of spool file indices."));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "SpoolStorage: Renamed " + Path(2) + " to " + Path(1))) << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: De-fragmentation completed."));
}

TEST_F(SpoolFilesTest, FilesNoneOfWhichCanBeLookedAtAreAFailureAndNoEmptySpool) {
  Put(1, "first");
  Put(2, "second");
  SpoolFiles& files = Open();
  for (const int error : {EIO, EACCES}) {
    disk_.Fail(Call::Lstat, error);
    EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: Input/output error (5)");
    disk_.fault = nullptr;
    EXPECT_EQ(ToText(files.ReadOldestFile()->data), "first") << "they are there still";
  }
}

TEST_F(SpoolFilesTest, DefragmentationLeavesAFullRangeAlone) {
  for (std::uint64_t index = 1; index <= 4; ++index) Put(index, std::to_string(index));
  std::filesystem::remove(Path(4));
  std::filesystem::create_directory(Path(4));
  Put(5, "5");
  SpoolFiles& files = Open();
  files.DefragFileIndices();
  EXPECT_EQ(Content(1, 6), "1 2 3 - 5 -");
  EXPECT_EQ(files.LastIndex(), 5U);
}

TEST_F(SpoolFilesTest, ANameThatCannotBeLookedAtIsNoGap) {
  disk_.fault = [this](Call call, const std::string& path) { return call == Call::Lstat && path == Path(2) ? EIO : 0; };
  Put(1, "a");
  Put(3, "b");
  Open().DefragFileIndices();
  EXPECT_EQ(Content(1, 3), "a - b");
}

TEST_F(SpoolFilesTest, ARenameThatFailsIsSaidAndTheNextGapIsTried) {
  disk_.fault = [this](Call call, const std::string& path) {
    return call == Call::Rename && path == Path(1) ? EACCES : 0;
  };
  Put(3, "a");
  Put(5, "b");
  Open().DefragFileIndices();
  EXPECT_EQ(Content(1, 5), "- a b - -");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "]: SpoolStorage: Failed to rename " + Path(3) + " to " + Path(1) + ": Permission denied (13)"))
      << log_.All();
}

TEST_F(SpoolFilesTest, AFileSystemThatRefusesEveryRenameIsNotAskedForEachName) {
  disk_.Fail(Call::Rename, EROFS);
  Put(20, "a");
  Put(40, "b");
  SpoolFiles& files = Open();
  files.DefragFileIndices();
  EXPECT_EQ(log_.Count("SpoolStorage: Failed to rename "), 10);
  EXPECT_EQ(files.FirstIndex(), 20U);
  EXPECT_EQ(files.LastIndex(), 40U);
}

TEST_F(SpoolFilesTest, AtTheEndOfTheNamesTheGapsAreUsed) {
  for (const std::uint64_t index : {6, 8, 9999}) Put(index, std::to_string(index));
  SpoolFiles& files = Open();
  EXPECT_EQ(Store("new")->path, Path(4));
  EXPECT_EQ(Content(1, 4), "6 8 9999 new");
  EXPECT_EQ(files.FirstIndex(), 1U);
  EXPECT_EQ(files.LastIndex(), 4U);
}

TEST_F(SpoolFilesTest, DeletesAFileUnderItsNewName) {
  for (const std::uint64_t index : {4, 8}) Put(index, std::to_string(index));
  SpoolFiles& files = Open();
  const auto read = files.ReadOldestFile();
  files.DefragFileIndices();
  EXPECT_TRUE(files.Delete(*read));
  EXPECT_EQ(Content(1, 2), "- 8");
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION,
                       "SpoolStorage: Files have been renamed. Searching for an inode match for " + Path(4)))
      << log_.All();
}

TEST_F(SpoolFilesTest, NeverDeletesAnotherFileThatGotTheNameOrTheInode) {
  Put(1, "read");
  Put(2, "other");
  SpoolFiles& files = Open();
  auto read = files.ReadOldestFile();
  std::filesystem::rename(Path(2), Path(1));
  EXPECT_FALSE(files.Delete(*read));
  EXPECT_EQ(Content(1, 2), "other -");
  // An inode number comes back for a new file; the times tell the two apart.
  struct stat other {};
  ASSERT_EQ(stat(Path(1).c_str(), &other), 0);
  read->stat_info->st_ino = other.st_ino;
  read->stat_info->st_size = other.st_size;
  read->stat_info->st_mtim.tv_sec = other.st_mtim.tv_sec - 1;
  EXPECT_FALSE(files.Delete(*read));
  read->stat_info->st_mtim = other.st_mtim;
  read->stat_info->st_mtim.tv_nsec = (other.st_mtim.tv_nsec + 1) % 1'000'000'000;
  EXPECT_FALSE(files.Delete(*read));
  // Within one tick of the kernel's clock the sizes do.
  read->stat_info->st_mtim = other.st_mtim;
  read->stat_info->st_size = other.st_size + 1;
  EXPECT_FALSE(files.Delete(*read));
  EXPECT_EQ(Content(1, 1), "other");
  read->stat_info->st_size = other.st_size;
  // A copy with all its times and its size is another file.
  read->stat_info->st_ino = other.st_ino + 1;
  EXPECT_FALSE(files.Delete(*read));
  read->stat_info->st_ino = other.st_ino;
  // Another file system, mounted in the place of the first, has inode numbers of its own.
  read->stat_info->st_dev = other.st_dev + 1;
  EXPECT_FALSE(files.Delete(*read));
  read->stat_info->st_dev = other.st_dev;
  EXPECT_TRUE(files.Delete(*read)) << "it was told from another for a reason that is none";
}

TEST_F(SpoolFilesTest, DeleteNeedsAReadFile) {
  SpoolFiles& files = Open();
  EXPECT_FALSE(files.Delete(StorageResult())) << "an empty spool";
  Store("first");
  EXPECT_FALSE(files.Delete(StorageResult())) << "no attributes";
  auto read = files.ReadOldestFile();
  EXPECT_TRUE(files.Delete(*read));
  EXPECT_FALSE(files.Delete(*read)) << "deleted already";
}

TEST_F(SpoolFilesTest, OldFilesGoWhenTheDiskLimitIsReached) {
  SpoolFiles& files = Open();
  limits_.Apply(1, 600, 300);
  const std::string chunk(300 * 1024, 'x');
  for (int i = 0; i < 3; ++i) Store(chunk);
  EXPECT_EQ(files.FirstIndex(), 1U);
  EXPECT_FALSE(files.HasFreeSpace());
  Store(chunk);
  // 1200 KiB are above the limit; with two files there is room for a third again.
  EXPECT_EQ(files.FirstIndex(), 3U);
  EXPECT_EQ(files.LastIndex(), 4U);
  EXPECT_EQ(files.DiskUsage(), 600U * 1024);
  EXPECT_TRUE(files.HasFreeSpace());
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Initiating cleanup..."));
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Cleanup completed. [Disk usage: 614400 / 1048576 ]"))
      << log_.All();
}

TEST_F(SpoolFilesTest, TellsOfEachFileThatMakesRoomForANewOne) {
  SpoolFiles& files = Open();
  std::vector<std::uint64_t> removed;
  files.SetRemovedCallback([&](std::uint64_t bytes) { removed.push_back(bytes); });
  limits_.Apply(1, 600, 300);
  Store(std::string(300 * 1024, 'x'));
  Store(std::string(299 * 1024, 'x'));
  Store(std::string(300 * 1024, 'x'));
  EXPECT_TRUE(files.Delete(*files.ReadOldestFile()));
  EXPECT_TRUE(removed.empty()) << "it was read, and somebody asked for its end";
  for (int i = 0; i < 2; ++i) Store(std::string(300 * 1024, 'x'));
  EXPECT_EQ(removed, (std::vector<std::uint64_t>{299 * 1024, 300 * 1024}));
  EXPECT_TRUE(files.Clear());
  EXPECT_EQ(removed.size(), 2U) << "a spool that is cleared loses nothing";
}

TEST_F(SpoolFilesTest, TellsOfTheFileThatGivesItsName) {
  Put(1, "four");
  Put(2, "b");
  Put(3, "c");
  SpoolFiles& files = Open(3);
  std::vector<std::uint64_t> removed;
  files.SetRemovedCallback([&](std::uint64_t bytes) { removed.push_back(bytes); });
  Store("d");
  EXPECT_EQ(removed, (std::vector<std::uint64_t>{4}));
}

TEST_F(SpoolFilesTest, TellsOfAFileThatCannotBeReadAndOfNoneThatStays) {
  disk_.fault = [](Call call, const std::string&) { return call == Call::Read || call == Call::Unlink ? EIO : 0; };
  Put(1, "bad");
  SpoolFiles& files = Open();
  std::vector<std::uint64_t> removed;
  files.SetRemovedCallback([&](std::uint64_t bytes) { removed.push_back(bytes); });
  EXPECT_NE(ReadError(), "");
  EXPECT_TRUE(removed.empty());
  disk_.fault = [](Call call, const std::string&) { return call == Call::Read ? EIO : 0; };
  EXPECT_NE(ReadError(), "");
  EXPECT_EQ(removed, (std::vector<std::uint64_t>{3}));
}

TEST_F(SpoolFilesTest, TheNewestFileNeverGoesForItself) {
  SpoolFiles& files = Open();
  limits_.Apply(1, 600, 600);
  const std::string chunk(600 * 1024, 'x');
  Store(chunk);
  EXPECT_EQ(Store(chunk)->code, StorageCode::Success);
  EXPECT_EQ(files.FirstIndex(), 2U);
  EXPECT_EQ(files.LastIndex(), 2U);
}

TEST_F(SpoolFilesTest, WithEveryNameTakenTheOldestFileGoes) {
  SpoolFiles& files = Open(3);
  for (const char* text : {"a", "b", "c"}) Store(text);
  EXPECT_EQ(Store("d")->code, StorageCode::Success);
  EXPECT_EQ(Content(1, 3), "b c d");
  EXPECT_EQ(files.DiskUsage(), 3U);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage: All valid filenames exist. Trying clean up."))
      << log_.All();
}

TEST_F(SpoolFilesTest, WithEveryNameTakenTheDiskLimitCostsOneFileAWriteToo) {
  SpoolFiles& files = Open(4);
  limits_.Apply(1, 600, 100);
  const std::string chunk(600 * 1024, 'x');
  for (const std::string& text : {std::string("a"), std::string("b"), chunk, chunk}) Store(text);
  EXPECT_EQ(files.FirstIndex(), 2U);
  EXPECT_EQ(files.DiskUsage(), 1U + 2 * 600 * 1024) << "above the limit until a later write";
  Store("c");
  EXPECT_EQ(files.DiskUsage(), 1U + 2 * 600 * 1024) << "'b' went";
  Store("d");
  EXPECT_EQ(files.DiskUsage(), 2U + 600 * 1024);
  EXPECT_TRUE(files.HasFreeSpace());
}

TEST_F(SpoolFilesTest, OneNameIsEnough) {
  Open(1);
  EXPECT_EQ(Store("a")->path, Path(1));
  EXPECT_EQ(Store("b")->path, Path(1));
  EXPECT_EQ(Content(1, 2), "b -");
}

TEST_F(SpoolFilesTest, AFolderInTheLastFreeNameEndsInAnErrorNotInALoop) {
  std::filesystem::create_directory(Path(1));
  std::filesystem::create_symlink(folder_ / "nowhere", Path(2));
  SpoolFiles& files = Open(2);
  Bytes payload = ToBytes("precious");
  try {
    files.Store(payload);
    FAIL() << "nothing was thrown";
  } catch (const StorageException& error) {
    EXPECT_STREQ(error.what(), "SpoolStorage::Cleanup: Failed to clean up spool files");
  }
  EXPECT_EQ(ToText(payload), "precious");
  EXPECT_EQ(log_.Count("SpoolStorage: Starting de-fragmentation"), 1);
  EXPECT_TRUE(std::filesystem::is_directory(Path(1)));
}

TEST_F(SpoolFilesTest, AFolderInTheNextNameCostsTheOldestFileOnly) {
  for (const char* text : {"a", "b"}) Put(text[0] - 'a' + 1U, text);
  std::filesystem::create_directory(Path(3));
  Open(3);
  EXPECT_EQ(Store("c")->path, Path(2));
  EXPECT_EQ(Content(1, 3), "b c -");
}

TEST_F(SpoolFilesTest, ATornFileIsRemovedAndThePayloadHandedBack) {
  disk_.max_bytes = 3;
  int writes = 0;
  disk_.fault = [&](Call call, const std::string&) { return call == Call::Write && ++writes == 2 ? ENOSPC : 0; };
  SpoolFiles& files = Open();
  Bytes payload = ToBytes("precious");
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(payload), "precious");
  EXPECT_FALSE(std::filesystem::exists(Path(1)));
  EXPECT_EQ(files.LastIndex(), 0U);
  EXPECT_EQ(files.DiskUsage(), 0U);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to write to " + Path(1) + ": No space left on device"));
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Success) << "there is room again";
  EXPECT_EQ(Content(1, 1), "precious");
}

TEST_F(SpoolFilesTest, ATornFileGoesThoughItsAttributesCannotBeHad) {
  disk_.max_bytes = 3;
  int writes = 0;
  disk_.fault = [&](Call call, const std::string&) {
    return call == Call::Fstat || (call == Call::Write && ++writes == 2) ? EIO : 0;
  };
  SpoolFiles& files = Open();
  Bytes payload = ToBytes("precious");
  EXPECT_EQ(files.Store(payload)->code, StorageCode::IOError);
  EXPECT_EQ(ToText(payload), "precious");
  EXPECT_FALSE(std::filesystem::exists(Path(1))) << "half a file bears a valid name";
  // And a whole one whose name is not safe: it would be written a second time.
  disk_.fault = [&](Call call, const std::string& path) {
    return call == Call::Fstat || (call == Call::Fsync && path == folder_.Path()) ? EIO : 0;
  };
  EXPECT_EQ(files.Store(payload)->code, StorageCode::IOError);
  EXPECT_FALSE(std::filesystem::exists(Path(1)));
}

TEST_F(SpoolFilesTest, ATornFileGoesThoughNobodyCanLookAtIt) {
  disk_.fault = [](Call call, const std::string&) { return call == Call::Write || call == Call::Lstat ? EIO : 0; };
  Open();
  EXPECT_EQ(Store("text")->code, StorageCode::IOError);
  EXPECT_FALSE(std::filesystem::exists(Path(1))) << "part of a file bears a valid name";
}

TEST_F(SpoolFilesTest, ATornFileThatSomebodyElseRemovesIsNoFailure) {
  bool fails = true;
  disk_.fault = [&](Call call, const std::string& path) {
    if (call == Call::Unlink) std::filesystem::remove(path);
    return fails && call == Call::Write ? EIO : 0;
  };
  Open();
  EXPECT_EQ(Store("text")->code, StorageCode::IOError);
  EXPECT_FALSE(log_.Has("SpoolStorage: Failed to delete ")) << log_.All();
  fails = false;
  EXPECT_EQ(Store("text")->path, Path(1));
}

TEST_F(SpoolFilesTest, ATornFileThatIsKnownByItsNameAloneIsTakenForNoOther) {
  bool fails = true;
  disk_.fault = [&](Call call, const std::string&) {
    if (fails && (call == Call::Write || call == Call::Fstat)) return EIO;
    return call == Call::Unlink ? EROFS : 0;
  };
  Put(1, "older");
  SpoolFiles& files = Open();
  EXPECT_EQ(Store("text")->code, StorageCode::IOError);
  ASSERT_TRUE(std::filesystem::exists(Path(2)));
  fails = false;
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "older");
  // A folder in its place is not it.
  std::filesystem::remove(Path(2));
  std::filesystem::create_directory(Path(2));
  EXPECT_EQ(Store("text")->path, Path(3));
}

TEST_F(SpoolFilesTest, AFileThatCouldNotBeMadeCostsNobodyElseHis) {
  SpoolFiles& files = Open();
  Put(1, "stale");
  disk_.fault = [](Call call, const std::string&) { return call == Call::Open ? EMFILE : 0; };
  Bytes payload = ToBytes("precious");
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Unknown);
  EXPECT_EQ(Content(1, 1), "stale");
}

TEST_F(SpoolFilesTest, ATornFileThatChangedHandsStays) {
  disk_.fault = [this](Call call, const std::string& path) {
    if (call != Call::Write) return 0;
    std::filesystem::rename(folder_.Write("stranger", "stranger"), path);
    return ENOSPC;
  };
  Open();
  EXPECT_EQ(Store("text")->code, StorageCode::Unknown);
  EXPECT_EQ(Content(1, 1), "stranger");
}

TEST_F(SpoolFilesTest, ATornFileThatCannotBeRemovedIsSaid) {
  disk_.fault = [](Call call, const std::string&) { return call == Call::Write || call == Call::Unlink ? EIO : 0; };
  Open();
  EXPECT_EQ(Store("text")->code, StorageCode::IOError);
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to delete " + Path(1) + ": Input/output error (5)"))
      << log_.All();
}

TEST_F(SpoolFilesTest, ATornFileThatCouldNotBeRemovedIsNeverGivenAndGoesBeforeTheNextOneComes) {
  bool read_only = false;
  disk_.max_bytes = 3;
  int writes = 0;
  disk_.fault = [&](Call call, const std::string&) {
    if (call == Call::Write && ++writes == 2) {
      read_only = true;  // as file systems do when a disk fails
      return EIO;
    }
    return call == Call::Unlink && read_only ? EROFS : 0;
  };
  SpoolFiles& files = Open();
  Bytes payload = ToBytes("precious");
  EXPECT_EQ(files.Store(payload)->code, StorageCode::IOError);
  EXPECT_EQ(Content(1, 2), "pre -");
  files.RefreshFileIndices();  // finds it under its valid name
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: No such file or directory (2)");
  // Nothing is written beside it.
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(payload), "precious");
  EXPECT_EQ(Content(1, 2), "pre -");
  EXPECT_FALSE(files.Clear());
  read_only = false;
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Success);
  EXPECT_EQ(Content(1, 2), "precious -");
  EXPECT_EQ(files.DiskUsage(), 8U);
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "precious");
}

TEST_F(SpoolFilesTest, ATornFileInWhosePlaceIsAnotherIsForgotten) {
  bool stuck = true;
  disk_.fault = [&](Call call, const std::string&) {
    return stuck && (call == Call::Write || call == Call::Unlink) ? EIO : 0;
  };
  SpoolFiles& files = Open();
  Bytes payload = ToBytes("precious");
  EXPECT_EQ(files.Store(payload)->code, StorageCode::IOError);
  stuck = false;
  std::filesystem::rename(folder_.Write("stranger", "stranger"), Path(1));
  EXPECT_EQ(files.Store(payload)->code, StorageCode::Success);
  EXPECT_EQ(Content(1, 2), "stranger precious");
}

TEST_F(SpoolFilesTest, ClearRemovesATornFileToo) {
  bool stuck = true;
  disk_.fault = [&](Call call, const std::string&) {
    return stuck && (call == Call::Write || call == Call::Unlink) ? EIO : 0;
  };
  SpoolFiles& files = Open();
  EXPECT_EQ(Store("text")->code, StorageCode::IOError);
  stuck = false;
  EXPECT_TRUE(files.Clear());
  EXPECT_EQ(Content(1, 1), "-");
}

TEST_F(SpoolFilesTest, AFileIsSafeOnDiskBeforeItCountsItsContentFirstThenItsName) {
  Open();
  Store("text");
  EXPECT_EQ(disk_.Synced(), (std::vector<std::string>{Path(1), folder_.Path()}));
  Put(2, "stale");
  Store("next");
  EXPECT_EQ(disk_.Synced(), (std::vector<std::string>{Path(1), folder_.Path(), Path(3), folder_.Path()}));
}

TEST_F(SpoolFilesTest, AFileThatIsNotSafeOnDiskDoesNotCount) {
  for (const std::string& unsafe : {Path(1), folder_.Path()}) {
    disk_.fault = [&](Call call, const std::string& path) { return call == Call::Fsync && path == unsafe ? EIO : 0; };
    SpoolFiles& files = Open();
    Bytes payload = ToBytes("precious");
    EXPECT_EQ(files.Store(payload)->code, StorageCode::IOError);
    EXPECT_EQ(ToText(payload), "precious");
    EXPECT_EQ(files.LastIndex(), 0U);
    EXPECT_FALSE(std::filesystem::exists(Path(1)));
    EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Storage: Failed to sync " + unsafe + ": Input/output error (5)"))
        << log_.All();
  }
}

TEST_F(SpoolFilesTest, AFileSystemWithoutASyncIsGoodEnough) {
  for (const int error : {EINVAL, ENOSYS}) {
    disk_.Fail(Call::Fsync, error);
    Open();
    EXPECT_EQ(Store("text")->code, StorageCode::Success);
  }
}

TEST_F(SpoolFilesTest, SignalsAndShortWritesTearNothing) {
  disk_.max_bytes = 3;
  std::map<Call, int> calls;
  disk_.fault = [&](Call call, const std::string&) {
    const bool blocks = call == Call::Open || call == Call::Read || call == Call::Write || call == Call::Fsync;
    return blocks && ++calls[call] % 2 == 1 ? EINTR : 0;
  };
  SpoolFiles& files = Open();
  EXPECT_EQ(Store("a text of some length")->code, StorageCode::Success);
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "a text of some length");
  for (const Call call : {Call::Open, Call::Read, Call::Write, Call::Fsync}) EXPECT_GE(calls[call], 2);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
}

TEST_F(SpoolFilesTest, ReachingExactlyTheDiskLimitCleansUp) {
  limits_.Apply(1, 600, 256);
  SpoolFiles& files = Open();
  const std::string quarter(256 * 1024, 'x');
  for (int i = 0; i < 3; ++i) Store(quarter);
  Store(quarter.substr(1));
  EXPECT_EQ(files.DiskUsage(), 1024U * 1024 - 1);
  EXPECT_EQ(files.FirstIndex(), 1U) << "one byte is left";
  Store("y");
  EXPECT_EQ(log_.Count("SpoolStorage: Initiating cleanup..."), 1);
  EXPECT_EQ(files.FirstIndex(), 3U) << "a whole file does not fit when it ends exactly at the limit";
  EXPECT_EQ(files.DiskUsage(), 512U * 1024);
}

TEST_F(SpoolFilesTest, AFileThatIsTooLargeToBeASpoolsIsSetAsideAndTheNextOneIsGiven) {
  constexpr std::uintmax_t kLargest = 64 * 1024 * 1024;
  Put(1, "");
  std::filesystem::resize_file(Path(1), kLargest + 1);
  Put(2, "");
  std::filesystem::resize_file(Path(2), kLargest);
  Put(3, "three");
  SpoolFiles& files = Open();
  const auto read = files.ReadOldestFile();
  EXPECT_EQ(read->path, Path(2)) << "exactly the largest is read";
  EXPECT_EQ(std::filesystem::file_size(folder_ / "events.aside"), kLargest + 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Setting aside " + Path(1) +
                                                ": 67108865 bytes are more than a spool file has."))
      << log_.All();
  EXPECT_EQ(files.DiskUsage(), kLargest + 5);
  EXPECT_TRUE(files.Delete(*read));
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "three");
}

TEST_F(SpoolFilesTest, OneFileIsKeptAsideAndALargerLimitReadsMore) {
  limits_.Apply(100, 600, 100);
  Put(1, "");
  std::filesystem::resize_file(Path(1), 200 * 1024 * 1024);
  folder_.Write("events.aside", "earlier");
  SpoolFiles& files = Open();
  EXPECT_EQ(files.ReadOldestFile()->data.size(), 200U * 1024 * 1024);
  limits_.Apply(99, 600, 100);
  EXPECT_EQ(ReadError(), "SpoolStorage::ReadOldestFile: No such file or directory (2)");
  EXPECT_EQ(files.FirstIndex(), 0U);
  EXPECT_EQ(std::filesystem::file_size(folder_ / "events.aside"), 200U * 1024 * 1024);
}

TEST_F(SpoolFilesTest, AFileThatCannotBeSetAsideHoldsNothingUp) {
  disk_.Fail(Call::Rename, EROFS);
  Put(1, "");
  std::filesystem::resize_file(Path(1), 65 * 1024 * 1024);
  Put(2, "two");
  SpoolFiles& files = Open();
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "two");
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "two");
}

TEST_F(SpoolFilesTest, DeleteOfAPathWithoutAFolderOrANameIsFalse) {
  SpoolFiles& files = Open();
  Store("text");
  auto read = files.ReadOldestFile();
  const std::string path = read->path;
  for (const std::string& odd : {std::string("events.0001"), folder_.Path() + "/", std::string()}) {
    read->path = odd;
    EXPECT_FALSE(files.Delete(*read)) << odd;
  }
  EXPECT_EQ(log_.Count("Searching for an inode match"), 0);
  read->path = path;
  EXPECT_TRUE(files.Delete(*read));
}

TEST_F(SpoolFilesTest, ClearDeletesEverythingAndStepsOverGaps) {
  for (const std::uint64_t index : {2, 5, 7}) Put(index, "x");
  SpoolFiles& files = Open();
  EXPECT_TRUE(files.Clear());
  EXPECT_EQ(Content(1, 7), "- - - - - - -");
  EXPECT_EQ(files.FirstIndex(), 0U);
  EXPECT_EQ(files.DiskUsage(), 0U);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
  EXPECT_TRUE(files.Clear()) << "an empty spool";
}

TEST_F(SpoolFilesTest, ClearSaysWhereItLostSightOfTheFolder) {
  Put(1, "x");
  SpoolFiles& files = Open();
  {
    // A sanitizer's first look at an exception's type opens a pipe: it has its look before there is none left.
    try {
      throw StorageException::FromErrno("first look", EMFILE);
    } catch (const StorageException& error) {
      EXPECT_EQ(error.Code(), EMFILE) << error.what();
    }
    // The file can go, but what is left cannot be listed.
    const NoMoreDescriptors no_more_descriptors;
    try {
      files.Clear();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const StorageException& error) {
      EXPECT_STREQ(error.what(), "SpoolStorage::RefreshFileIndices: Too many open files (24)");
      EXPECT_EQ(error.Code(), EMFILE);
    }
  }
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: Failed to delete file with index 1")) << log_.All();
  EXPECT_EQ(Content(1, 1), "-");
}

TEST_F(SpoolFilesTest, AVanishedFolderIsAFailureAndComesBack) {
  SpoolFiles& files = Open();
  Store("first");
  std::filesystem::rename(folder_.Path(), folder_.Path() + ".away");
  EXPECT_EQ(Store("second")->code, StorageCode::NotFound);
  std::filesystem::rename(folder_.Path() + ".away", folder_.Path());
  EXPECT_EQ(Store("third")->code, StorageCode::Success);
  EXPECT_EQ(ToText(files.ReadOldestFile()->data), "first");
}

}  // namespace
}  // namespace zagent::common::internal
