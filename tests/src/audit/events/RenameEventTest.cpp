#include "src/audit/events/RenameEvent.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

constexpr unsigned kRename = 82;
constexpr unsigned kRenameAt = 264;
constexpr unsigned kRenameAt2 = 316;

// Tests write the records of a rename that the disk has already seen: the object is at its new name.
class RenameEventTest : public ::testing::Test {
 protected:
  RenameEventTest() {
    EXPECT_EQ(mkdir((folder_ / "a").c_str(), 0755), 0);
    EXPECT_EQ(mkdir((folder_ / "b").c_str(), 0755), 0);
  }

  AuditRecords& Call(unsigned syscall = kRename, const AuditRecords::Fields& changes = {{"items", "4"}}) {
    return records_.Syscall(syscall, changes).Cwd(folder_.Path()).Proctitle("mv x y");
  }
  // PARENT and object records in the order of `mv a/f b/g` on a kernel that names the destination's folder first.
  AuditRecords& MoveFromAToB(const std::string& file) {
    return Call()
        .Path("PARENT", "b/", folder_ / "b")
        .Path("PARENT", "a/", folder_ / "a")
        .Path("DELETE", "a/f", file)
        .Path("CREATE", "b/g", file);
  }
  RenameEvent Build() { return RenameEvent(records_, nullptr, &replaced_); }
  std::string Error() {
    try {
      Build();
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  }
  static std::uint64_t InodeOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(lstat(path.c_str(), &result), 0) << path;
    return result.st_ino;
  }
  static std::string Hex(int fd) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(fd));
    return text;
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  AuditRecords records_;
  std::unique_ptr<DeleteEvent> replaced_;
};

TEST_F(RenameEventTest, ShowsTheOldNameAndTheNew) {
  const std::string file = folder_.Write("g2", "abc");
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "g", file);
  records_.Path("CREATE", "g2", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetType(), edr::EventType::Rename);
  EXPECT_EQ(event.GetAction(), "Rename");
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "g");
  EXPECT_EQ(event.GetPath(), folder_ / "g");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetFile()->GetInode(), InodeOf(file));
  EXPECT_EQ(event.GetNewFile()->GetInode(), InodeOf(file));
  EXPECT_EQ(event.GetFile()->GetDevice(), event.GetNewFile()->GetDevice());
  EXPECT_EQ(event.GetFileSize(), 3);
  EXPECT_EQ(event.GetFileType(), edr::FileType::Regular);
  EXPECT_EQ(event.GetCommandLine(), "mv x y");
  EXPECT_EQ(replaced_, nullptr);
}

TEST_F(RenameEventTest, TellsTheParentsApartWhenTheDestinationsComesFirst) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
}

TEST_F(RenameEventTest, TellsTheParentsApartWhenTheSourcesComesFirst) {
  const std::string file = folder_.Write("b/g", "abc");
  Call().Path("PARENT", "a/", folder_ / "a").Path("PARENT", "b/", folder_ / "b").Path("DELETE", "a/f", file);
  records_.Path("CREATE", "b/g", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
}

TEST_F(RenameEventTest, TellsAbsoluteParentsApart) {
  const std::string file = folder_.Write("b/g", "abc");
  Call().Path("PARENT", folder_ / "b/").Path("PARENT", folder_ / "a/").Path("DELETE", folder_ / "a/f", file);
  records_.Path("CREATE", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
}

TEST_F(RenameEventTest, TellsTwoNamesOfOneFolderApart) {
  const std::string file = folder_.Write("a/g", "abc");
  // rename("a/f", "<folder>/a/g"): one folder, named in two ways.
  Call().Path("PARENT", folder_ / "a/").Path("PARENT", "a/", folder_ / "a").Path("DELETE", "a/f", file);
  records_.Path("CREATE", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
}

TEST_F(RenameEventTest, AsksTheDescriptorsWhenBothParentsHaveOneName) {
  const std::string file = folder_.Write("b/g", "abc");
  const common::util::UniqueFd from(open((folder_ / "a").c_str(), O_RDONLY | O_DIRECTORY));
  const common::util::UniqueFd to(open((folder_ / "b").c_str(), O_RDONLY | O_DIRECTORY));
  Call(kRenameAt2, {{"items", "4"}, {"a0", Hex(from.Get())}, {"a2", Hex(to.Get())}, {"pid", std::to_string(getpid())}});
  // Both records name the working folder; only the inodes are the real ones.
  records_.Path("PARENT", folder_.Path(), folder_ / "b").Path("PARENT", folder_.Path(), folder_ / "a");
  records_.Path("DELETE", "f", file).Path("CREATE", "g", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
}

TEST_F(RenameEventTest, OneOfTheTwoDescriptorsIsEnough) {
  const std::string file = folder_.Write("b/g", "abc");
  const common::util::UniqueFd to(open((folder_ / "b").c_str(), O_RDONLY | O_DIRECTORY));
  Call(kRenameAt2, {{"items", "4"}, {"a0", "f4240"}, {"a2", Hex(to.Get())}, {"pid", std::to_string(getpid())}});
  records_.Path("PARENT", folder_.Path(), folder_ / "b").Path("PARENT", folder_.Path(), folder_ / "a");
  records_.Path("DELETE", "f", file).Path("CREATE", "g", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
}

TEST_F(RenameEventTest, FallsBackOnTheOrderOfTheParents) {
  const std::string file = folder_.Write("b/g", "abc");
  // Descriptors of a process that is gone.
  Call(kRenameAt, {{"items", "4"}, {"a0", "4"}, {"a2", "5"}, {"pid", "2147483647"}});
  records_.Path("PARENT", folder_.Path(), folder_ / "a").Path("PARENT", folder_.Path(), folder_.Path());
  records_.Path("DELETE", "f", file).Path("CREATE", "g", file);
  EXPECT_EQ(Build().GetParentInode(), InodeOf(folder_.Path()));
}

TEST_F(RenameEventTest, SplitsOffTheDeleteOfTheFileThatItReplaced) {
  const std::string victim = folder_.Write("victim", "old");
  const std::string file = folder_.Write("b/h", "abc");
  Call(kRename, {{"items", "5"}, {"uid", "1"}});
  records_.Path("PARENT", "b/", folder_ / "b").Path("PARENT", "a/", folder_ / "a").Path("DELETE", "a/f", file);
  records_.Path("DELETE", "b/h", victim).Path("CREATE", "b/h", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  ASSERT_NE(replaced_, nullptr);
  EXPECT_EQ(replaced_->GetType(), edr::EventType::Delete);
  EXPECT_EQ(replaced_->GetAction(), "Delete");
  EXPECT_EQ(replaced_->GetId(), event.GetId());
  EXPECT_EQ(replaced_->GetTimestamp(), event.GetTimestamp());
  EXPECT_EQ(replaced_->GetActorProcessId(), event.GetActorProcessId());
  EXPECT_EQ(replaced_->GetActorUserId(), 1U);
  EXPECT_EQ(replaced_->GetAuditKey(), event.GetAuditKey());
  EXPECT_EQ(replaced_->GetCommandLine(), "mv x y");
  EXPECT_EQ(replaced_->GetFile()->GetPath(), file);
  EXPECT_EQ(replaced_->GetFile()->GetInode(), InodeOf(victim));
  EXPECT_EQ(replaced_->GetParentInode(), InodeOf(folder_ / "b"));
  EXPECT_EQ(replaced_->GetFileSize(), -1);
}

TEST_F(RenameEventTest, DropsAnExchangeOfTwoFiles) {
  const std::string first = folder_.Write("e1", "abc");
  const std::string second = folder_.Write("e2", "abc");
  Call(kRenameAt2, {{"items", "6"}}).Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path());
  records_.Path("DELETE", first, second).Path("DELETE", second, first);
  records_.Path("CREATE", second, second).Path("CREATE", first, first);
  EXPECT_EQ(Error(), "Cannot combine records with missing or different inodes");
}

TEST_F(RenameEventTest, LooksAtARenamedLinkItself) {
  const std::string link = folder_ / "newlink";
  ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "oldlink", link);
  records_.Path("CREATE", "newlink", link);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetNewFile()->GetPath(), link);
  EXPECT_TRUE(event.IsSymlink());
  EXPECT_EQ(event.GetFileType(), edr::FileType::SymbolicLink);
}

TEST_F(RenameEventTest, KnowsARenamedFolder) {
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "old", folder_ / "b");
  records_.Path("CREATE", "b", folder_ / "b");
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetObjectType(), edr::ObjectType::Directory);
  EXPECT_EQ(event.GetFileType(), edr::FileType::Directory);
}

TEST_F(RenameEventTest, SurvivesADestinationThatIsGone) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  ASSERT_EQ(unlink(file.c_str()), 0);
  const RenameEvent event = Build();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to lstat " + file + " (No such file or directory (2))"));
  EXPECT_EQ(event.GetFileSize(), -1);
  EXPECT_EQ(event.GetFileType(), edr::FileType::Unknown);
  EXPECT_EQ(event.GetObjectType(), edr::ObjectType::File);
}

TEST_F(RenameEventTest, IsNoEventWhenAnotherFileIsAtTheDestination) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  const std::string other = folder_.Write("other", "xyz");
  ASSERT_EQ(rename(other.c_str(), file.c_str()), 0);
  EXPECT_EQ(Error(), "File " + file + " differs from the object of the audit event");
}

TEST_F(RenameEventTest, IsNoEventWhenAFifoGotTheInodeOfTheFile) {
  const std::string fifo = folder_ / "b/g";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const AuditRecords::Fields as_file = {{"mode", "0100600"}};
  Call().Path("PARENT", "b/", folder_ / "b").Path("PARENT", "a/", folder_ / "a");
  records_.Path("DELETE", "a/f", fifo, as_file).Path("CREATE", "b/g", fifo, as_file);
  EXPECT_EQ(Error(), "Unsupported file type for Rename event");
}

TEST_F(RenameEventTest, IsNoEventWhenAnotherFolderIsAtTheDestination) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  ASSERT_EQ(rename((folder_ / "b").c_str(), (folder_ / "c").c_str()), 0);
  ASSERT_EQ(mkdir((folder_ / "b").c_str(), 0755), 0);
  EXPECT_EQ(Error(), "Directory " + (folder_ / "b") + " differs from the PARENT object of the audit event");
}

TEST_F(RenameEventTest, RefreshesTheFileUnderItsNewName) {
  const std::string file = folder_.Write("b/g", "a");
  MoveFromAToB(file);
  RenameEvent event = Build();
  folder_.Write("b/g", "abc");
  event.Refresh();
  EXPECT_EQ(event.GetFileSize(), 3);
  EXPECT_FALSE(event.GetFileContentHash(edr::ContentHash::Sha256).empty());
}

TEST_F(RenameEventTest, ReadsUntypedRecordsByTheirItems) {
  const std::string file = folder_.Write("b/g", "abc");
  Call().Path("", folder_ / "a").Path("", folder_ / "b").Path("", folder_ / "a/f", file).Path("", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(event.GetNewFile()->GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), InodeOf(folder_ / "b"));
  EXPECT_EQ(replaced_, nullptr);
}

TEST_F(RenameEventTest, FindsTheReplacedFileAmongFiveUntypedRecords) {
  const std::string victim = folder_.Write("victim", "old");
  const std::string file = folder_.Write("b/g", "abc");
  Call(kRename, {{"items", "5"}}).Path("", folder_ / "a").Path("", folder_ / "b").Path("", folder_ / "a/f", file);
  records_.Path("", file, victim).Path("", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetNewFile()->GetInode(), InodeOf(file));
  ASSERT_NE(replaced_, nullptr);
  EXPECT_EQ(replaced_->GetFile()->GetInode(), InodeOf(victim));
}

TEST_F(RenameEventTest, RefusesUntypedRecordsBeyondTheirItems) {
  const std::string file = folder_.Write("g", "abc");
  Call(kRename, {{"items", "6"}}).Path("", folder_.Path()).Path("", folder_.Path()).Path("", "f", file);
  records_.Path("", "g", file);
  EXPECT_EQ(Error(), "Too many PATH records in Rename event");
}

TEST_F(RenameEventTest, NeedsADestination) {
  const std::string file = folder_.Write("g", "abc");
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "f", file);
  EXPECT_EQ(Error(), "Missing/incorrect destination PATH records in Rename event");
}

TEST_F(RenameEventTest, WaitsForADeletedSourceAndRefusesAnother) {
  const std::string file = folder_.Write("g", "abc");
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("NORMAL", "f", file);
  records_.Path("NORMAL", "f", file);
  EXPECT_EQ(Error(), "Missing delete PATH record for Rename event");
}

TEST_F(RenameEventTest, LeavesOutDestinationRecordsOfAnUnknownType) {
  const std::string file = folder_.Write("g", "abc");
  Call().Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "f", file);
  records_.Path("UNKNOWN", "x", file).Path("CREATE", "g", file);
  EXPECT_EQ(Build().GetNewFile()->GetPath(), file);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Unsupported PATH record in Rename event of type: UNKNOWN"));
}

TEST_F(RenameEventTest, RefusesOtherCalls) {
  const std::string file = folder_.Write("g", "abc");
  Call(83).Path("PARENT", folder_.Path()).Path("PARENT", folder_.Path()).Path("DELETE", "f", file);
  records_.Path("CREATE", "g", file);
  EXPECT_EQ(Error(), "Invalid syscall for Rename event: 83");
}

TEST_F(RenameEventTest, SaysWhenTheParentsRecordDidNotTell) {
  const std::string missing = folder_ / "gone/g";
  const std::string file = folder_.Write("f", "abc");
  Call().Path("PARENT", folder_.Path());
  records_.Path("PARENT", "gone/", folder_.Path(), {{"inode", "0"}, {"dev", ""}});
  records_.Path("DELETE", "f", file).Path("CREATE", "gone/g", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetNewFile()->GetPath(), missing);
  try {
    static_cast<void>(event.GetParentInode());
    ADD_FAILURE() << "answered an inode";
  } catch (const edr::EventException& error) {
    EXPECT_STREQ(error.what(), "Failed to get parent inode for Rename event");
  }
  try {
    static_cast<void>(event.GetParentDeviceID());
    ADD_FAILURE() << "answered a device";
  } catch (const edr::EventException& error) {
    EXPECT_STREQ(error.what(), "Failed to get parent device ID for Rename event");
  }
}

TEST_F(RenameEventTest, ClonesWithBothNames) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  const std::unique_ptr<edr::Event> copy = Build().Clone();
  EXPECT_EQ(copy->GetType(), edr::EventType::Rename);
  EXPECT_EQ(copy->GetFile()->GetPath(), folder_ / "a/f");
  EXPECT_EQ(copy->GetNewFile()->GetPath(), file);
  EXPECT_EQ(copy->GetFileSize(), 3);
}

TEST_F(RenameEventTest, GoesIntoAFolderBehindALink) {
  const std::string file = folder_.Write("b/g", "abc");
  ASSERT_EQ(symlink("b", (folder_ / "link").c_str()), 0);
  Call().Path("PARENT", folder_ / "a/", folder_ / "a").Path("PARENT", folder_ / "link/", folder_ / "b");
  records_.Path("DELETE", folder_ / "a/f", file).Path("CREATE", folder_ / "link/g", file);
  const RenameEvent event = Build();
  EXPECT_EQ(event.GetNewFile()->GetPath(), folder_ / "link/g");
  EXPECT_EQ(event.GetFileSize(), 3);
}

TEST_F(RenameEventTest, NoRecordIsTakenAfterwards) {
  const std::string file = folder_.Write("b/g", "abc");
  MoveFromAToB(file);
  const std::unique_ptr<edr::Event> copy = Build().Clone();
  const AuditRecords::Fields fields = AuditRecords::PathFields("CREATE", file, file);
  const auto error_of = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  };
  EXPECT_EQ(error_of([&] { copy->ParseRecord(record_type::kPath, AuditRecords::ViewOf(fields)); }),
            "Too many PATH records in Rename event");
  EXPECT_EQ(error_of([&] { copy->Validate(); }), "Missing/incorrect PATH records in file event");
}

}  // namespace
}  // namespace zagent::audit::internal
