// What a FileEvent answers about its file, while the file lives on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/edr/process/StatHelper.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using namespace std::chrono_literals;

using fakes::AuditRecords;

constexpr std::int64_t kEventTime = 1'700'000'000'000'000'000;
constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kAbcSha1 = "a9993e364706816aba3e25717850c26c9cd0d89d";
constexpr const char* kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";

std::string Hex(const std::vector<unsigned char>& digest) {
  std::string text;
  for (const unsigned char byte : digest) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

std::string Text(const std::vector<unsigned char>& bytes) {
  return {bytes.begin(), bytes.end()};
}

class ScriptedMagic final : public edr::LibMagicWrapper {
 public:
  [[nodiscard]] std::optional<std::string> Identify(const std::string& path) override {
    asked.push_back(path);
    meanwhile();
    return answer;
  }
  std::function<void()> meanwhile = [] {};
  std::vector<std::string> asked;
  std::optional<std::string> answer = "ASCII text";
};

class FileEventAnswersTest : public ::testing::Test {
 protected:
  // The opening of `path` for writing, with the identity that `path` has on disk now.
  std::unique_ptr<ReadWriteEvent> Written(const std::string& path, const AuditRecords::Fields& path_changes = {}) {
    AuditRecords records;
    records.Syscall(257, {{"a2", "1"}})
        .Cwd("/")
        .Path("PARENT", folder_.Path())
        .Path("NORMAL", path, path, path_changes);
    return std::make_unique<ReadWriteEvent>(records, context_);
  }
  // The same, but the file goes before the event is built.
  std::unique_ptr<ReadWriteEvent> WrittenAndGone(const std::string& path) {
    AuditRecords records;
    records.Syscall(257, {{"a2", "1"}}).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", path);
    EXPECT_EQ(unlink(path.c_str()), 0);
    return std::make_unique<ReadWriteEvent>(records, context_);
  }
  void Replace(const std::string& path) {
    const std::string other = folder_.Write("replacement", "something else");
    ASSERT_EQ(rename(other.c_str(), path.c_str()), 0);
  }
  static void SetTimes(const std::string& path, std::int64_t access, std::int64_t modification) {
    const struct timespec times[] = {{access, 5}, {modification, 7}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  // What is read of a file is kept from here on; a minute ahead every file that a test writes counts as settled.
  void RememberFiles() {
    FileContext context{magic_};
    context.digests = std::make_shared<common::util::DigestCache>(clock_);
    context_ = std::make_shared<const FileContext>(context);
  }

  // Looks at the disk are shared from here on.
  void ShareLooks() {
    FileContext context{magic_};
    context.looks = looks_;
    context_ = std::make_shared<const FileContext>(context);
  }
  static void Append(const std::string& path) { std::ofstream(path, std::ios::app) << "."; }
  static std::int64_t RefreshedSize(ReadWriteEvent& event) {
    event.Refresh();
    return event.GetFileSize();
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_{std::chrono::system_clock::now() + 1min};
  const std::shared_ptr<DiskLooks> looks_ = std::make_shared<DiskLooks>(clock_);
  std::shared_ptr<ScriptedMagic> magic_ = std::make_shared<ScriptedMagic>();
  FileEvent::Context context_ = std::make_shared<const FileContext>(FileContext{magic_});
};

TEST_F(FileEventAnswersTest, TellsSizeAndTimesInWholeSecondsFromTheDisk) {
  const std::string file = folder_.Write("f", "abc");
  SetTimes(file, 1'600'000'001, 1'600'000'002);
  const auto event = Written(file);
  EXPECT_EQ(event->GetFileSize(), 3);
  EXPECT_EQ(event->GetFileAccessTime(), 1'600'000'001'000'000'000);
  EXPECT_EQ(event->GetFileModificationTime(), 1'600'000'002'000'000'000);
  EXPECT_GT(event->GetFileChangeTime(), 1'600'000'002'000'000'000);
  EXPECT_EQ(event->GetFileChangeTime() % 1'000'000'000, 0);
}

TEST_F(FileEventAnswersTest, SurvivesAFileThatIsGone) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = WrittenAndGone(file);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to lstat " + file + " (No such file or directory (2))"));
  EXPECT_EQ(event->GetFileSize(), -1);
  EXPECT_EQ(event->GetFileAccessTime(), kEventTime);
  EXPECT_EQ(event->GetFileModificationTime(), kEventTime);
  EXPECT_EQ(event->GetFileChangeTime(), kEventTime);
  EXPECT_EQ(event->GetFileType(), edr::FileType::Unknown);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "File stat information is not available"));
  EXPECT_EQ(event->GetObjectType(), edr::ObjectType::File);
  EXPECT_TRUE(event->GetFileContent().empty());
  EXPECT_TRUE(log_.Has("Failed to read contents of file " + file));
  EXPECT_TRUE(event->GetFileContentHash(edr::ContentHash::Md5).empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to generate MD5 for " + file));
}

TEST_F(FileEventAnswersTest, IsNoEventWhenAnotherFileIsInItsPlace) {
  const std::string file = folder_.Write("f", "abc");
  AuditRecords records(88);
  records.Syscall(257, {{"a2", "1"}}).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", file);
  Replace(file);
  try {
    ReadWriteEvent event(records, context_);
    FAIL() << "took another file for the event's";
  } catch (const edr::EventException& error) {
    EXPECT_EQ(error.what(), "File " + file + " differs from the object of the audit event with ID 88");
  }
}

TEST_F(FileEventAnswersTest, IsNoEventWhenTheInodeIsOnAnotherDevice) {
  const std::string file = folder_.Write("f", "abc");
  EXPECT_THROW(Written(file, {{"dev", "ff:ff"}}), edr::EventException);
}

TEST_F(FileEventAnswersTest, TakesTheCanonicalPathBehindASymbolicLink) {
  const std::string file = folder_.Write("f", "abc");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("f", link.c_str()), 0);
  AuditRecords records;
  // The kernel gives the link's name with the target's inode.
  records.Syscall(257, {{"a2", "1"}}).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", link, file);
  const ReadWriteEvent event(records, context_);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(event.GetFile()->GetOwnerId(), geteuid());
  EXPECT_FALSE(event.IsSymlink());
  EXPECT_EQ(event.GetFileType(), edr::FileType::Regular);
}

TEST_F(FileEventAnswersTest, IsNoEventWhenTheLinkLeadsNowhere) {
  const std::string file = folder_.Write("f", "abc");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("missing", link.c_str()), 0);
  AuditRecords records;
  records.Syscall(257, {{"a2", "1"}}).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", link, file);
  try {
    ReadWriteEvent event(records, context_);
    FAIL() << "followed a dangling link";
  } catch (const edr::EventException& error) {
    EXPECT_EQ(error.what(), "Failed to resolve link " + link + " (No such file or directory (2))");
  }
}

TEST_F(FileEventAnswersTest, KnowsFoldersFilesAndLinks) {
  const std::string folder = folder_ / "d";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  AuditRecords mkdir_records;
  mkdir_records.Syscall(83).Cwd("/").Path("PARENT", folder_.Path()).Path("CREATE", folder);
  const CreateEvent made(mkdir_records, context_);
  EXPECT_EQ(made.GetObjectType(), edr::ObjectType::Directory);
  EXPECT_EQ(made.GetFileType(), edr::FileType::Directory);

  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("d", link.c_str()), 0);
  AuditRecords symlink_records;
  symlink_records.Syscall(88).Cwd("/").Path("PARENT", folder_.Path()).Path("CREATE", link);
  const CreateEvent linked(symlink_records, context_);
  EXPECT_EQ(linked.GetPath(), link);
  EXPECT_TRUE(linked.IsSymlink());
  EXPECT_EQ(linked.GetObjectType(), edr::ObjectType::File);
  EXPECT_EQ(linked.GetFileType(), edr::FileType::SymbolicLink);
}

TEST_F(FileEventAnswersTest, NeverReadsAFifoThatGotTheInodeOfTheFile) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Inode numbers are used again: the record is that of a regular file.
  const auto event = Written(fifo, {{"mode", "0100600"}});
  try {
    static_cast<void>(event->GetFileType());
    ADD_FAILURE() << "knows a type for a FIFO";
  } catch (const edr::EventException& error) {
    EXPECT_STREQ(error.what(), "Unsupported file type for Write event");
  }
  EXPECT_TRUE(event->GetFileContent().empty());
  EXPECT_TRUE(log_.Has("Failed to read contents of file " + fifo));
  EXPECT_TRUE(event->GetFileContentHash(edr::ContentHash::Sha256).empty());
}

TEST_F(FileEventAnswersTest, ComputesAllDigestsWithOneReadOfTheFile) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  EXPECT_EQ(Hex(event->GetFileContentHash(edr::ContentHash::Md5)), kAbcMd5);
  folder_.Write("f", "changed since");
  EXPECT_EQ(Hex(event->GetFileContentHash(edr::ContentHash::Sha1)), kAbcSha1);
  EXPECT_EQ(Hex(event->GetFileContentHash(edr::ContentHash::Sha256)), kAbcSha256);
  EXPECT_EQ(log_.Count("Reading file content from " + file + " (Size: "), 1);
}

TEST_F(FileEventAnswersTest, EventsThatShareDigestsReadAFileOnceUntilItIsWrittenAgain) {
  const std::string file = folder_.Write("f", "abc");
  // To a clock that is ahead, every change is old enough.
  fakes::FakeClock clock(std::chrono::system_clock::now() + std::chrono::minutes(1));
  context_ =
      std::make_shared<const FileContext>(FileContext{magic_, std::make_shared<common::util::DigestCache>(clock)});
  for (int event = 0; event < 10; ++event) {
    EXPECT_EQ(Hex(Written(file)->GetFileContentHash(edr::ContentHash::Sha256)), kAbcSha256);
  }
  EXPECT_EQ(log_.Count("Reading file content from " + file + " (Size: "), 1);
  folder_.Write("f", "written again");
  EXPECT_NE(Hex(Written(file)->GetFileContentHash(edr::ContentHash::Sha256)), kAbcSha256);
}

TEST_F(FileEventAnswersTest, HasNoDigestOfAFileAboveFourGiB) {
  const std::string file = folder_.Write("f", "abc");
  std::filesystem::resize_file(file, (std::uintmax_t{4} << 30) + 1);
  EXPECT_TRUE(Written(file)->GetFileContentHash(edr::ContentHash::Sha256).empty());
  EXPECT_EQ(log_.Count("Reading file content from " + file), 0);
}

TEST_F(FileEventAnswersTest, HasNoDigestOfAFileThatWasReplacedAndTriesOnlyOnce) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  Replace(file);
  EXPECT_TRUE(event->GetFileContentHash(edr::ContentHash::Md5).empty());
  EXPECT_TRUE(event->GetFileContentHash(edr::ContentHash::Sha1).empty());
  EXPECT_TRUE(event->GetFileContentHash(edr::ContentHash::Sha256).empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to generate MD5 for " + file));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to generate sha1 for " + file));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to generate sha256 for " + file));
  EXPECT_EQ(log_.Count("MD5 for " + file + " does not exist"), 1);
}

TEST_F(FileEventAnswersTest, RefusesAFourthKindOfDigest) {
  const auto event = Written(folder_.Write("f", "abc"));
  try {
    static_cast<void>(event->GetFileContentHash(static_cast<edr::ContentHash>(3)));
    FAIL() << "knows a fourth digest";
  } catch (const edr::EventException& error) {
    EXPECT_STREQ(error.what(), "Unsupported type of content hash requested: 3");
  }
}

TEST_F(FileEventAnswersTest, ReadsTheContentOnceAndKeepsIt) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  EXPECT_EQ(Text(event->GetFileContent()), "abc");
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_DEBUG, "Reading file content from " + file + " (stat: 3 bytes. Content: 3 bytes)"));
  folder_.Write("f", "changed since");
  EXPECT_EQ(Text(event->GetFileContent()), "abc");
}

TEST_F(FileEventAnswersTest, ReadsNothingOfAFileThatWasReplaced) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  Replace(file);
  EXPECT_TRUE(event->GetFileContent().empty());
  EXPECT_TRUE(log_.Has("The file at " + file + " has been replaced"));
}

TEST_F(FileEventAnswersTest, AsksForTheTypeOfTheFileOnce) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  EXPECT_TRUE(magic_->asked.empty());
  EXPECT_EQ(event->GetFileTypeDesc(), "ASCII text");
  EXPECT_EQ(event->GetFileTypeDesc(), "ASCII text");
  EXPECT_EQ(magic_->asked, std::vector<std::string>{file});
}

TEST_F(FileEventAnswersTest, AsksForTheTypeOfARestingFileOnceForAllItsEvents) {
  RememberFiles();
  const std::string file = folder_.Write("f", "abc");
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "ASCII text");
  magic_->answer = "data";
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "ASCII text");
  EXPECT_EQ(magic_->asked, std::vector<std::string>{file});

  ASSERT_EQ(chmod(file.c_str(), 04755), 0);  // the description names modes
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "data");
  EXPECT_EQ(magic_->asked.size(), 2U);
}

TEST_F(FileEventAnswersTest, AsksAgainForTheTypeOfAFileThatHasJustChanged) {
  RememberFiles();
  clock_.SetWall(-1h);
  const std::string file = folder_.Write("f", "abc");
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "ASCII text");
  magic_->answer = "data";
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "data");
}

TEST_F(FileEventAnswersTest, DoesNotKeepATypeThatWasFoundWhileTheFileChanged) {
  RememberFiles();
  const std::string file = folder_.Write("f", "abc");
  magic_->meanwhile = [&] { ASSERT_EQ(chmod(file.c_str(), 0600), 0); };
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "ASCII text");
  magic_->meanwhile = [] {};
  magic_->answer = "data";
  EXPECT_EQ(Written(file)->GetFileTypeDesc(), "data");
}

TEST_F(FileEventAnswersTest, LeavesTheTypeEmptyWhenNobodyKnowsIt) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  magic_->answer.reset();
  EXPECT_EQ(event->GetFileTypeDesc(), "");
  EXPECT_TRUE(log_.Has("Failed to find type description for " + file));
}

TEST_F(FileEventAnswersTest, LooksAtTheSettledFileAfterARefresh) {
  const std::string file = folder_.Write("f", "a");
  const auto event = Written(file);
  EXPECT_EQ(event->GetFileSize(), 1);
  EXPECT_EQ(Text(event->GetFileContent()), "a");
  EXPECT_NE(Hex(event->GetFileContentHash(edr::ContentHash::Md5)), kAbcMd5);
  EXPECT_EQ(event->GetFileTypeDesc(), "ASCII text");
  folder_.Write("f", "abc");
  magic_->answer = "data";
  event->Refresh();
  EXPECT_EQ(event->GetFileSize(), 3);
  EXPECT_EQ(Text(event->GetFileContent()), "abc");
  EXPECT_EQ(Hex(event->GetFileContentHash(edr::ContentHash::Md5)), kAbcMd5);
  EXPECT_EQ(event->GetFileTypeDesc(), "data");
}

TEST_F(FileEventAnswersTest, TellsTheStateThatItsAnswersAreOf) {
  const auto state_of = [](const std::string& path) {
    struct stat found {};
    EXPECT_EQ(stat(path.c_str(), &found), 0);
    return common::util::FileState(found);
  };
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  const auto state = state_of(file);
  EXPECT_EQ(event->GetFileState(), state);
  EXPECT_EQ(state.size, 3);
  Append(file);
  EXPECT_EQ(event->GetFileState(), state) << "as its size";
  event->Refresh();
  EXPECT_EQ(event->GetFileState(), state_of(file));
  EXPECT_EQ(WrittenAndGone(file)->GetFileState(), std::nullopt);
}

TEST_F(FileEventAnswersTest, RefusesToRefreshWhatIsGoneOrReplaced) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  Replace(file);
  EXPECT_THROW(event->Refresh(), common::StatHelperException);
  ASSERT_EQ(unlink(file.c_str()), 0);
  try {
    event->Refresh();
    FAIL() << "refreshed a file that is gone";
  } catch (const edr::EventException& error) {
    EXPECT_EQ(error.what(), "File " + file + " differs from the object of the audit event with ID 77");
  }
}

TEST_F(FileEventAnswersTest, DoesNotAskLibmagicForAFileThatWentWhileTheEventRested) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(event->GetFileTypeDesc(), "");
}

TEST_F(FileEventAnswersTest, EventsOfABurstShareTheLookAtTheSettledFile) {
  ShareLooks();
  const std::string file = folder_.Write("f", "abc");
  const auto first = Written(file);
  looks_->Forget();
  const auto second = Written(file);  // of the next piece, but read before the look as well
  const auto clone = second->Clone();
  EXPECT_EQ(RefreshedSize(*first), 3);
  Append(file);
  EXPECT_EQ(RefreshedSize(*second), 3);
  clone->Refresh();
  EXPECT_EQ(clone->GetFileSize(), 3);
  clock_.Advance(RestedLooks::kLongest);
  EXPECT_EQ(RefreshedSize(*second), 4);
}

TEST_F(FileEventAnswersTest, ALookDoesNotAnswerForWhatWasReadBehindIt) {
  ShareLooks();
  const std::string file = folder_.Write("f", "abc");
  const auto first = Written(file);
  EXPECT_EQ(RefreshedSize(*first), 3);
  Append(file);
  looks_->Forget();  // the next piece, which tells of it
  const auto second = Written(file);
  const auto clone = second->Clone();
  clone->Refresh();
  EXPECT_EQ(clone->GetFileSize(), 4);
  EXPECT_EQ(RefreshedSize(*second), 4);
  Append(file);
  EXPECT_EQ(RefreshedSize(*first), 4) << "the newer look is as good for the older event";
}

TEST_F(FileEventAnswersTest, TheLookAtAFileIsNotTakenForAnotherInItsPlace) {
  ShareLooks();
  const std::string file = folder_.Write("f", "abc");
  const std::string aside = folder_.Write("aside", "another");
  const auto exchange = [&] {
    ASSERT_EQ(renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_EXCHANGE), 0);
  };
  const auto of_file = Written(file);
  exchange();
  looks_->Forget();
  const auto of_other = Written(file);
  exchange();
  EXPECT_EQ(RefreshedSize(*of_file), 3);
  exchange();
  EXPECT_EQ(RefreshedSize(*of_other), 7);
  EXPECT_THROW(of_file->Refresh(), common::StatHelperException) << "the newest look is at the other one";
}

TEST_F(FileEventAnswersTest, ThatAFileIsGoneIsLookedAtEachTime) {
  ShareLooks();
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  const std::string aside = folder_ / "aside";
  ASSERT_EQ(rename(file.c_str(), aside.c_str()), 0);
  EXPECT_THROW(event->Refresh(), edr::EventException);
  ASSERT_EQ(rename(aside.c_str(), file.c_str()), 0);
  EXPECT_EQ(RefreshedSize(*event), 3);
}

TEST_F(FileEventAnswersTest, ClonesWithEverythingThatItKnows) {
  const std::string file = folder_.Write("f", "abc");
  const auto event = Written(file);
  EXPECT_EQ(Text(event->GetFileContent()), "abc");
  EXPECT_EQ(event->GetFileTypeDesc(), "ASCII text");
  const std::unique_ptr<edr::Event> copy = event->Clone();
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(copy->GetType(), edr::EventType::Write);
  EXPECT_EQ(copy->GetAction(), "Write");
  EXPECT_EQ(copy->GetFile()->GetPath(), file);
  EXPECT_NE(copy->GetFile(), event->GetFile());
  EXPECT_EQ(copy->GetFileSize(), 3);
  EXPECT_EQ(Text(copy->GetFileContent()), "abc");
  EXPECT_EQ(copy->GetParentInode(), event->GetParentInode());
  EXPECT_EQ(copy->GetFileTypeDesc(), "ASCII text");
}

}  // namespace
}  // namespace zagent::audit::internal
