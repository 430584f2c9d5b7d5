// What file events know of paths through the folder identities and the mounts, and what they tell them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <string>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "src/audit/events/AttributeEvent.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/audit/events/RenameEvent.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;
using fakes::AuditRecords;

constexpr unsigned kMkdir = 83, kRmdir = 84, kLink = 86, kUnlinkAt = 263, kOpenAt = 257, kOpenByHandleAt = 304;
constexpr unsigned kChmod = 90, kFchmod = 91, kFchmodAt = 268, kFchownAt = 260, kRename = 82, kRenameAt2 = 316;

class PlacedEventsTest : public ::testing::Test {
 protected:
  PlacedEventsTest() {
    for (const char* name : {"w/sub", "elsewhere", "proc/4711/fd"}) fs::create_directories(folder_ / name);
    context_->folders = folders_;
    context_->proc_root = folder_ / "proc";
  }

  AuditRecords& Call(unsigned syscall, const AuditRecords::Fields& changes = {}) {
    records_ = std::make_unique<AuditRecords>();
    return records_->Syscall(syscall, changes).Cwd(folder_ / "elsewhere");
  }
  template <typename Kind>
  Kind Build() {
    return Kind(*records_, context_);
  }
  RenameEvent BuildRename() { return RenameEvent(*records_, context_, &other_); }
  template <typename Call>
  static std::string ErrorOf(const Call& call) {
    try {
      call();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "no exception";
  }
  static FileIdentity IdentityOf(const std::string& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return FileIdentity::Of(found);
  }
  [[nodiscard]] std::string KnownPathOf(const FileIdentity& identity) const {
    return folders_->PathOf(identity).value_or("unknown");
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  std::shared_ptr<FolderIdentities> folders_ = std::make_shared<FolderIdentities>();
  std::shared_ptr<FileContext> context_ = std::make_shared<FileContext>();
  std::unique_ptr<AuditRecords> records_;
  std::unique_ptr<DeleteEvent> other_;
};

// --- what they tell

TEST_F(PlacedEventsTest, ANewFolderIsKnownAtItsPath) {
  Call(kMkdir).Path("PARENT", folder_ / "w/", folder_ / "w").Path("CREATE", folder_ / "w/sub");
  Build<CreateEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), folder_ / "w/sub");
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w")), folder_ / "w") << "its parent was confirmed";
}

TEST_F(PlacedEventsTest, ANewFolderIsKnownEvenWhenItIsGoneBeforeAnybodyLooks) {
  Call(kMkdir).Path("PARENT", folder_ / "w/", folder_ / "w").Path("CREATE", folder_ / "w/sub");
  const FileIdentity first = IdentityOf(folder_ / "w/sub");
  fs::rename(folder_ / "w/sub", folder_ / "w/moved");
  fs::create_directory(folder_ / "w/sub");
  EXPECT_NE(ErrorOf([&] { Build<CreateEvent>(); }), "no exception");
  EXPECT_EQ(KnownPathOf(first), folder_ / "w/sub") << "the rename has its own records";
}

TEST_F(PlacedEventsTest, ANewFolderWhoseNameIsLostIsNotKnownByItsNumber) {
  Call(kMkdir).Path("PARENT", folder_ / "w/", folder_ / "w").Path("CREATE", "(null)", folder_ / "w/sub");
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  fs::rename(folder_ / "w/sub", folder_ / "elsewhere/sub");
  EXPECT_EQ(Build<CreateEvent>().GetPath(), folder_ / "w/inode:" + std::to_string(sub.inode));
  EXPECT_EQ(KnownPathOf(sub), "unknown");
}

TEST_F(PlacedEventsTest, AFolderThatIsSeenIsKnown) {
  Call(kChmod, {{"items", "1"}}).Path("NORMAL", folder_ / "w/sub");
  Build<AttributeEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), folder_ / "w/sub");
}

TEST_F(PlacedEventsTest, ARemovedFolderIsForgotten) {
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  Call(kRmdir).Path("PARENT", folder_ / "w/", folder_ / "w").Path("DELETE", folder_ / "w/sub");
  Build<DeleteEvent>();
  EXPECT_EQ(KnownPathOf(sub), "unknown");
}

TEST_F(PlacedEventsTest, ACallThatFailedTellsNothing) {
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  Call(kRmdir, {{"success", "no"}}).Path("PARENT", folder_ / "w/", folder_ / "w").Path("DELETE", folder_ / "w/sub");
  Build<DeleteEvent>();
  EXPECT_EQ(KnownPathOf(sub), folder_ / "w/sub");
}

TEST_F(PlacedEventsTest, ARenamedFolderTakesTheKnownOnesBelowItAlong) {
  fs::create_directory(folder_ / "w/sub/deep");
  const FileIdentity deep = IdentityOf(folder_ / "w/sub/deep");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  folders_->Learn(deep, folder_ / "w/sub/deep");
  fs::rename(folder_ / "w/sub", folder_ / "w/new");
  Call(kRename, {{"items", "4"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w").Path("DELETE", folder_ / "w/sub", folder_ / "w/new");
  records_->Path("CREATE", folder_ / "w/new");
  BuildRename();
  EXPECT_EQ(KnownPathOf(deep), folder_ / "w/new/deep");
}

TEST_F(PlacedEventsTest, AFolderThatWasReplacedIsGoneWhateverWasKnownBelowIt) {
  fs::create_directory(folder_ / "w/b");
  const FileIdentity b = IdentityOf(folder_ / "w/b");
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  folders_->Learn(b, folder_ / "w/b");
  folders_->Learn({b.device, 4242}, folder_ / "w/b/removed");  // which no record told
  Call(kRename, {{"items", "5"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w").Path("DELETE", folder_ / "w/sub");
  records_->Path("DELETE", folder_ / "w/b").Path("CREATE", folder_ / "w/b", folder_ / "w/sub");
  fs::rename(folder_ / "w/sub", folder_ / "w/b");
  const RenameEvent event(*records_, context_, nullptr);  // nobody wants the delete
  EXPECT_EQ(KnownPathOf(sub), folder_ / "w/b");
  EXPECT_EQ(KnownPathOf(b), "unknown");
}

// --- what they know

TEST_F(PlacedEventsTest, AFileBelowADescriptorOfAProcessThatIsGoneIsFoundByItsFolder) {
  const std::string file = folder_.Write("w/sub/f", "abc");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  Call(kUnlinkAt, {{"a0", "5"}}).Path("PARENT", folder_ / "elsewhere", folder_ / "w/sub").Path("DELETE", "f", file);
  EXPECT_EQ(Build<DeleteEvent>().GetPath(), file);
}

TEST_F(PlacedEventsTest, AFileIsFoundInAFolderThatIsGoneToo) {
  const std::string file = folder_.Write("w/sub/f", "abc");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  Call(kUnlinkAt, {{"a0", "5"}}).Path("PARENT", folder_ / "elsewhere", folder_ / "w/sub").Path("DELETE", "f", file);
  fs::remove_all(folder_ / "w/sub");
  EXPECT_EQ(Build<DeleteEvent>().GetPath(), file);
}

TEST_F(PlacedEventsTest, AFileThatWasMeantElsewhereIsNotReportedWhereItNeverWas) {
  const std::string file = folder_.Write("w/sub/f", "abc");
  folders_->Learn(IdentityOf(folder_ / "elsewhere"), folder_ / "elsewhere");
  Call(kUnlinkAt, {{"a0", "5"}}).Path("PARENT", folder_ / "elsewhere", folder_ / "w/sub").Path("DELETE", "f", file);
  const auto event = Build<DeleteEvent>();
  ASSERT_NE(event.Refusal(), nullptr);
  EXPECT_EQ(*event.Refusal(), "No trusted path for Delete event with ID 77");
  EXPECT_EQ(event.GetLoss(), Event::Loss::Unplaced);
}

TEST_F(PlacedEventsTest, ARenameIntoAFolderThatNobodyKnowsIsNotReported) {
  const std::string file = folder_.Write("w/sub/g", "abc");
  folders_->Learn(IdentityOf(folder_ / "elsewhere"), folder_ / "elsewhere");
  Call(kRenameAt2, {{"items", "4"}, {"a0", "ffffff9c"}, {"a2", "5"}}).Path("PARENT", folder_ / "elsewhere");
  records_->Path("PARENT", folder_ / "elsewhere", folder_ / "w/sub")
      .Path("DELETE", "f", file)
      .Path("CREATE", "g", file);
  EXPECT_EQ(BuildRename().GetLoss(), Event::Loss::Unplaced);
}

TEST_F(PlacedEventsTest, AFolderThatIsGoneBeforeItsParentIsAskedForIsKnownStill) {
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", folder_ / "w/sub/f", folder_.Write("w/sub/f", "abc"));
  fs::remove_all(folder_ / "w/sub");
  const auto event = Build<ReadWriteEvent>();
  ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
  EXPECT_EQ(event.GetParentInode(), sub.inode);
  EXPECT_EQ(event.GetParentDeviceID(), common::util::DeviceText(sub.device));
}

// --- calls on a descriptor

TEST_F(PlacedEventsTest, AFolderIsLookedAtOnceUntilTheNextPieceOfRecords) {
  context_->looks = std::make_shared<DiskLooks>();
  const std::string file = folder_.Write("w/sub/f", "abc");
  const auto build = [&] {
    Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file);
    return Build<ReadWriteEvent>().GetParentInode();
  };
  const std::uint64_t first = IdentityOf(folder_ / "w/sub").inode;
  EXPECT_EQ(build(), first);
  fs::rename(folder_ / "w/sub", folder_ / "w/old");
  fs::create_directory(folder_ / "w/sub");
  fs::rename(folder_ / "w/old/f", file);
  EXPECT_EQ(build(), first) << "its piece was read before";
  context_->looks->Forget();
  EXPECT_EQ(build(), IdentityOf(folder_ / "w/sub").inode);
}

TEST_F(PlacedEventsTest, AFileIsLookedAtOnceUntilTheNextPieceOfRecords) {
  context_->looks = std::make_shared<DiskLooks>();
  const std::string file = folder_.Write("w/sub/f", "abc");
  const auto size = [&] {
    Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file);
    return Build<ReadWriteEvent>().GetFileSize();
  };
  EXPECT_EQ(size(), 3);
  folder_.Write("w/sub/f", "abcdef");
  EXPECT_EQ(size(), 3) << "its piece was read before";
  context_->looks->Forget();
  EXPECT_EQ(size(), 6);
}

TEST_F(PlacedEventsTest, ACallOnADescriptorIsAboutTheFileBehindIt) {
  const std::string file = folder_.Write("w/f", "abc");
  fs::create_symlink(file, folder_ / "proc/4711/fd/3");
  Call(kFchmod, {{"a0", "3"}, {"items", "1"}}).Path("NORMAL", "(null)", file);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), file);
  // The empty name of a call that takes the descriptor's own object.
  Call(kFchownAt, {{"a0", "3"}, {"a1", "0"}, {"items", "1"}}).Path("NORMAL", "", file);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), file);
}

TEST_F(PlacedEventsTest, ACallOnADescriptorNeedsNoWorkingFolder) {
  const std::string file = folder_.Write("w/f", "abc");
  fs::create_symlink(file, folder_ / "proc/4711/fd/3");
  records_ = std::make_unique<AuditRecords>();
  records_->Syscall(kFchmod, {{"a0", "3"}, {"items", "1"}}).Path("NORMAL", "(null)", file);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), file);
  records_ = std::make_unique<AuditRecords>();
  records_->Syscall(kFchmod, {{"a0", "4"}, {"items", "1"}}).Path("NORMAL", "(null)", file);
  EXPECT_EQ(Build<AttributeEvent>().GetLoss(), Event::Loss::Unplaced);
}

TEST_F(PlacedEventsTest, ItsOwnProcFolderIsTheCallers) {
  const std::string file = folder_.Write("w/f", "abc");
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  common::util::UniqueFd opened(open(file.c_str(), O_RDONLY));
  const int number = opened.Get();
  const pid_t caller = fork();
  if (caller == 0) {  // has the file open until the other end of the pipe is closed
    char byte = 0;
    close(ends[1]);
    _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
  }
  opened.Reset();
  Call(kChmod, {{"items", "1"}, {"pid", std::to_string(caller)}});
  records_->Path("NORMAL", "/proc/self/fd/" + std::to_string(number), file);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), file);
  close(ends[1]);
  close(ends[0]);
  EXPECT_EQ(waitpid(caller, nullptr, 0), caller);
}

TEST_F(PlacedEventsTest, AnOpeningByHandleIsOfWhatItsNewDescriptorStandsFor) {
  const std::string file = folder_.Write("w/f", "abc");
  fs::create_symlink(file, folder_ / "proc/4711/fd/3");
  fs::create_symlink(folder_ / "w", folder_ / "proc/4711/fd/4");  // any object of the file system
  Call(kOpenByHandleAt, {{"a0", "4"}, {"a2", "1"}, {"exit", "3"}, {"items", "1"}}).Path("NORMAL", "(null)", file);
  const auto event = Build<ReadWriteEvent>();
  ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
  EXPECT_EQ(event.GetPath(), file);
}

// --- names with slashes behind them

TEST_F(PlacedEventsTest, SlashesBehindANameAreNoPartOfIt) {
  Call(kChmod, {{"items", "1"}}).Path("NORMAL", folder_ / "w/sub//", folder_ / "w/sub");
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), folder_ / "w/sub");
}

TEST_F(PlacedEventsTest, ARemovedFolderHasItsNameThoughTheKernelLostIt) {
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  Call(kRmdir, {{"items", "3"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", "(null)", folder_ / "w").Path("DELETE", "(null)", folder_ / "w/sub");
  EXPECT_EQ(Build<DeleteEvent>().GetPath(), folder_ / "w/sub");
}

TEST_F(PlacedEventsTest, ARenamedFolderHasBothNamesThoughTheKernelLostThem) {
  fs::create_directory(folder_ / "w/b");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  fs::rename(folder_ / "w/sub", folder_ / "w/b/new");
  // rename("w/sub/", "w/b/new/"): the folders come right before their objects.
  Call(kRename, {{"items", "8"}}).Path("PARENT", folder_ / "w/b/", folder_ / "w/b");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w").Path("PARENT", "(null)", folder_ / "w");
  records_->Path("DELETE", "(null)", folder_ / "w/b/new").Path("PARENT", "(null)", folder_ / "w/b");
  records_->Path("CREATE", "(null)", folder_ / "w/b/new");
  const RenameEvent event = BuildRename();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "w/sub");
  EXPECT_EQ(event.GetNewFile()->GetPath(), folder_ / "w/b/new");
  EXPECT_EQ(event.GetParentInode(), IdentityOf(folder_ / "w/b").inode);
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/b/new")), folder_ / "w/b/new");
}

TEST_F(PlacedEventsTest, ARenameThatLostOneNameHasTheOtherFolder) {
  fs::create_directory(folder_ / "w/b");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  fs::rename(folder_ / "w/sub", folder_ / "w/b/new");
  Call(kRename, {{"items", "6"}}).Path("PARENT", folder_ / "w/b/", folder_ / "w/b");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w").Path("PARENT", "(null)", folder_ / "w");
  records_->Path("DELETE", "(null)", folder_ / "w/b/new").Path("CREATE", folder_ / "w/b/new");
  const RenameEvent event = BuildRename();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "w/sub");
  EXPECT_EQ(event.GetNewFile()->GetPath(), folder_ / "w/b/new");
}

// --- links

TEST_F(PlacedEventsTest, ALinkThatIsTheObjectItselfIsKept) {
  const std::string file = folder_.Write("w/f", "abc");
  const std::string link = folder_ / "w/link";
  fs::create_symlink(file, link);
  Call(kFchownAt, {{"items", "1"}}).Path("NORMAL", link);  // AT_SYMLINK_NOFOLLOW
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), link);
  Call(kFchownAt, {{"items", "1"}}).Path("NORMAL", link, file);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), file) << "a call that followed it";
}

TEST_F(PlacedEventsTest, ALinkOfALinkThatLeadsNowhereIsKept) {
  const std::string link = folder_ / "w/link";
  fs::create_symlink("nowhere", link);
  fs::create_hard_link(link, folder_ / "w/second");
  Call(kLink, {{"items", "3"}}).Path("PARENT", folder_ / "w/", folder_ / "w").Path("NORMAL", link);
  records_->Path("CREATE", folder_ / "w/second");
  const auto event = Build<CreateEvent>();
  EXPECT_EQ(event.GetPath(), folder_ / "w/second");
  EXPECT_TRUE(event.IsSymlink());
}

// --- devices

TEST_F(PlacedEventsTest, AFileOnASubvolumeIsConfirmedAndReadAllTheSame) {
  const std::string file = folder_.Write("w/f", "abc");
  fs::create_directory(folder_ / "proc/self");
  folder_.Write("proc/self/mountinfo",
                "21 1 254:1 / / rw - ext4 none rw\n30 21 7:77 / " + folder_.Path() + " rw - btrfs none rw\n");
  context_->mounts = std::make_shared<MountTable>(folder_ / "proc", [](int) { return false; });
  const AuditRecords::Fields by_mount = {{"dev", common::util::DeviceText(makedev(7, 77))}};
  Call(kOpenAt, {{"a2", "1"}}).Path("PARENT", folder_ / "w/", folder_ / "w", by_mount);
  records_->Path("NORMAL", file, file, by_mount);
  auto event = Build<ReadWriteEvent>();
  EXPECT_EQ(event.GetFileSize(), 3);
  event.Refresh();
  EXPECT_EQ(event.GetFileSize(), 3);
  EXPECT_FALSE(event.GetFileContentHash(edr::ContentHash::Sha256).empty());
  EXPECT_EQ(event.GetFileContent().size(), 3U);
  // Another inode is another file, whatever the mount.
  Call(kOpenAt, {{"a2", "1"}});
  records_->Path("NORMAL", file, file, {{"dev", "07:4d"}, {"inode", "1"}});
  EXPECT_EQ(ErrorOf([&] { Build<ReadWriteEvent>(); }),
            "File " + file + " differs from the object of the audit event with ID 77");
}

TEST_F(PlacedEventsTest, AFolderBehindALinkHasTheDeviceOfItsOwnMount) {
  const std::string file = folder_.Write("elsewhere/f", "abc");
  fs::create_directory_symlink(folder_ / "elsewhere", folder_ / "w/link");
  fs::create_directory(folder_ / "proc/self");
  folder_.Write("proc/self/mountinfo",
                "21 1 254:1 / / rw - ext4 none rw\n30 21 7:77 / " + (folder_ / "elsewhere") + " rw - btrfs none rw\n");
  context_->mounts = std::make_shared<MountTable>(folder_ / "proc", [](int) { return false; });
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", folder_ / "w/link/f", file);
  EXPECT_EQ(Build<ReadWriteEvent>().GetParentDeviceID(), common::util::DeviceText(makedev(7, 77)));
  // The kernel tells that device of the file, too.
  Call(kOpenAt, {{"a2", "1"}});
  records_->Path("NORMAL", folder_ / "w/link/f", file, {{"dev", common::util::DeviceText(makedev(7, 77))}});
  EXPECT_EQ(Build<ReadWriteEvent>().GetFileSize(), 3);
}

// --- two names that are exchanged

TEST_F(PlacedEventsTest, ExchangedFoldersChangePlacesThoughNoEventComesOfIt) {
  fs::create_directory(folder_ / "w/b");
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  const FileIdentity b = IdentityOf(folder_ / "w/b");
  folders_->Learn(sub, folder_ / "w/sub");
  folders_->Learn(b, folder_ / "w/b");
  Call(kRenameAt2, {{"items", "6"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w").Path("DELETE", folder_ / "w/sub");
  records_->Path("DELETE", folder_ / "w/b").Path("CREATE", folder_ / "w/b", folder_ / "w/sub");
  records_->Path("CREATE", folder_ / "w/sub", folder_ / "w/b");
  EXPECT_EQ(ErrorOf([&] { BuildRename(); }), "Cannot combine records with missing or different inodes");
  EXPECT_EQ(KnownPathOf(sub), folder_ / "w/b");
  EXPECT_EQ(KnownPathOf(b), folder_ / "w/sub");
  EXPECT_EQ(other_, nullptr);
}

// --- names that are not the paths

TEST_F(PlacedEventsTest, AFileBelowAnotherRootIsWhereItsFolderIs) {
  fs::create_directories(folder_ / "w/jail/etc");
  const std::string file = folder_.Write("w/jail/etc/passwd", "abc");
  folders_->Learn(IdentityOf(folder_ / "w/jail/etc"), folder_ / "w/jail/etc");
  Call(kUnlinkAt).Path("PARENT", "/etc/", folder_ / "w/jail/etc").Path("DELETE", "/etc/passwd", file);
  EXPECT_EQ(Build<DeleteEvent>().GetPath(), file);
}

TEST_F(PlacedEventsTest, AWayThroughALinkDoesNotMoveAFolder) {
  const std::string deep = folder_ / "w/sub/deep";
  fs::create_directories(deep);
  fs::create_directory_symlink(folder_ / "w", folder_ / "elsewhere/link");
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  const std::string file = folder_.Write("w/sub/f", "abc");
  const std::string through = folder_ / "elsewhere/link/sub";
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", through + "/f", file);
  Build<ReadWriteEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), folder_ / "w/sub");
  Call(kFchmodAt).Path("NORMAL", through, folder_ / "w/sub");
  Build<AttributeEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), folder_ / "w/sub");
  Call(kMkdir).Path("PARENT", through, folder_ / "w/sub").Path("CREATE", through + "/deep", deep);
  Build<CreateEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(deep)), deep);
}

TEST_F(PlacedEventsTest, AnUnknownFolderIsNotLearnedThroughALink) {
  fs::create_directory_symlink(folder_ / "w", folder_ / "elsewhere/link");
  const std::string file = folder_.Write("w/sub/f", "abc");
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", folder_ / "elsewhere/link/sub/f", file);
  Build<ReadWriteEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), "unknown");
  Call(kUnlinkAt).Path("PARENT", folder_ / "elsewhere/link/sub/", folder_ / "w/sub").Path("DELETE", "f", file);
  Build<DeleteEvent>();
  EXPECT_EQ(KnownPathOf(IdentityOf(folder_ / "w/sub")), "unknown");
}

TEST_F(PlacedEventsTest, TheNameOfADescriptorThatIsClosedIsNoPath) {
  folders_->Learn(IdentityOf(folder_ / "w/sub"), folder_ / "w/sub");
  Call(kFchmodAt).Path("NORMAL", "/proc/self/fd/987", folder_ / "w/sub");
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), folder_ / "w/sub");
}

TEST_F(PlacedEventsTest, TheFolderOfAFileIsAskedForBeforeWhatIsKnownOfIt) {
  const std::string file = folder_.Write("w/sub/f", "abc");
  folders_->Learn({IdentityOf(folder_.Path()).device, 4242}, folder_ / "w/sub");
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file, file);
  EXPECT_EQ(Build<ReadWriteEvent>().GetParentInode(), IdentityOf(folder_ / "w/sub").inode);
}

TEST_F(PlacedEventsTest, AFolderThatIsRenamedToNobodyKnowsWhereIsNotAtItsOldPath) {
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  folders_->Learn({sub.device, 4242}, folder_ / "elsewhere/in");
  fs::rename(folder_ / "w/sub", folder_ / "w/new");
  Call(kRename, {{"items", "4"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", "in/", folder_ / "proc").Path("DELETE", folder_ / "w/sub", folder_ / "w/new");
  records_->Path("CREATE", "in/new", folder_ / "w/new");
  EXPECT_NE(BuildRename().Refusal(), nullptr);
  EXPECT_EQ(KnownPathOf(sub), "unknown");
}

TEST_F(PlacedEventsTest, AFolderOfARenameThatCannotBeToldIsNotAtItsOldPath) {
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  Call(kRename, {{"items", "4"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("DELETE", folder_ / "w/sub").Path("CREATE", folder_ / "w/sub");
  EXPECT_NE(ErrorOf([&] { BuildRename(); }), "no exception");
  EXPECT_EQ(KnownPathOf(sub), "unknown");
}

TEST_F(PlacedEventsTest, ARemovedFolderWithoutATrustedPathIsForgottenToo) {
  fs::create_directory(folder_ / "w/other");
  const FileIdentity sub = IdentityOf(folder_ / "w/sub");
  folders_->Learn(sub, folder_ / "w/sub");
  folders_->Learn({sub.device, 4242}, folder_ / "elsewhere");
  Call(kUnlinkAt, {{"a0", "5"}}).Path("PARENT", folder_ / "elsewhere", folder_ / "w/other");
  records_->Path("DELETE", "sub", folder_ / "w/sub");
  EXPECT_NE(Build<DeleteEvent>().Refusal(), nullptr);
  EXPECT_EQ(KnownPathOf(sub), "unknown");
}

TEST_F(PlacedEventsTest, AWorkingFolderTooLongToBeToldIsNone) {
  records_ = std::make_unique<AuditRecords>();
  records_->Syscall(kChmod).Cwd("<too_long>").Path("NORMAL", "f", folder_.Write("w/f", "abc"));
  EXPECT_NE(ErrorOf([&] { Build<AttributeEvent>(); }), "no exception");
}

}  // namespace
}  // namespace zagent::audit::internal
