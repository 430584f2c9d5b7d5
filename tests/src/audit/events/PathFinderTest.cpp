#include "src/audit/events/PathFinder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "src/audit/events/PathResolution.h"
#include "src/edr/Event.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;
using fakes::AuditRecords;

constexpr std::int32_t kPid = 4711;
constexpr int kFd = 5;
const PathFinder::Start kWorkingFolder = std::nullopt;
const PathFinder::Start kDescriptor = kFd;

// A caller stands in "elsewhere", and what he does he does in "watched".
class PathFinderTest : public ::testing::Test {
 protected:
  PathFinderTest() {
    for (const char* name : {"watched/sub", "elsewhere", "proc/4711/fd"}) fs::create_directories(folder_ / name);
    context_.folders = std::make_shared<FolderIdentities>();
    context_.proc_root = folder_ / "proc";
    file_ = folder_.Write("watched/sub/f", "abc");
  }

  static PathRecord Record(const std::string& word, const std::string& name, const std::string& disk_path,
                           const AuditRecords::Fields& changes = {}) {
    AuditRecords::Fields fields = AuditRecords::PathFields(word, name, disk_path);
    for (const auto& [field, value] : changes) fields[field] = value;
    return PathRecord(AuditRecords::ViewOf(fields));
  }
  static FileIdentity IdentityOf(const std::string& path) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return FileIdentity::Of(found);
  }
  // What the process' descriptor stands for, while it is there.
  void Open(const std::string& target) { fs::create_symlink(target, folder_ / "proc/4711/fd/5"); }
  void Know(const std::string& path) { context_.folders->Learn(IdentityOf(path), path); }
  [[nodiscard]] std::string KnownAt(const std::string& disk_path) const {
    return context_.folders->PathOf(IdentityOf(disk_path)).value_or("unknown");
  }

  [[nodiscard]] std::string FolderOf(const PathRecord& parent, const PathFinder::Start& start = kWorkingFolder,
                                     const std::string& name = "f") const {
    return Finder().FolderOf(parent, Record("CREATE", name, file_), start).value_or("unplaced");
  }
  [[nodiscard]] std::string Alone(const PathRecord& object, const PathFinder::Start& start = kWorkingFolder,
                                  std::optional<std::int32_t> descriptor = std::nullopt) const {
    return Finder().ResolveAlone(object, start, descriptor).value_or("unplaced");
  }
  [[nodiscard]] PathFinder Finder() const { return {context_, cwd_, kPid}; }

  fakes::TempFolder folder_;
  FileContext context_;
  std::string cwd_ = folder_ / "elsewhere";
  std::string file_;
};

// --- the folder of an object

TEST_F(PathFinderTest, TakesAFolderAtItsWordWhereItsInodeIsKnown) {
  Know(folder_ / "watched/sub");
  const PathRecord parent = Record("PARENT", folder_ / "watched/sub/", folder_ / "watched/sub");
  // It was there when the call was made, whatever became of it since.
  fs::rename(folder_ / "watched/sub", folder_ / "watched/gone");
  file_ = folder_ / "watched/gone/f";
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, LearnsAFolderThatTheDiskConfirms) {
  const PathRecord parent = Record("PARENT", folder_ / "watched/./sub//", folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/sub");
  EXPECT_EQ(KnownAt(folder_ / "watched/sub"), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, StartsARelativeFolderInTheWorkingFolder) {
  cwd_ = folder_ / "watched";
  EXPECT_EQ(FolderOf(Record("PARENT", "sub/", folder_ / "watched/sub")), folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(Record("PARENT", "../watched/sub/", folder_ / "watched/sub")), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, KeepsTheWayThroughALinkAndDoesNotLearnIt) {
  fs::create_directory_symlink(folder_ / "watched/sub", folder_ / "watched/link");
  EXPECT_EQ(FolderOf(Record("PARENT", folder_ / "watched/link/", folder_ / "watched/sub")), folder_ / "watched/link");
  EXPECT_EQ(KnownAt(folder_ / "watched/sub"), "unknown");
}

TEST_F(PathFinderTest, GoesWhereTheInodeIsKnownWhenTheTextIsNotItsPath) {
  Know(folder_ / "watched/sub");
  // The kernel names the working folder for a name below a descriptor.
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/sub"), kDescriptor), folder_ / "watched/sub");
  // And it is known still when the folder has gone.
  const PathRecord parent = Record("PARENT", cwd_, folder_ / "watched/sub");
  fs::rename(folder_ / "watched/sub", folder_ / "watched/gone");
  file_ = folder_ / "watched/gone/f";
  EXPECT_EQ(FolderOf(parent, kDescriptor), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, AsksADescriptorForAFolderThatNobodyKnows) {
  Open(folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/sub"), kDescriptor), folder_ / "watched/sub");
  EXPECT_EQ(KnownAt(folder_ / "watched/sub"), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, AsksADescriptorForAFolderBelowIt) {
  Open(folder_ / "watched");
  EXPECT_EQ(FolderOf(Record("PARENT", "sub/", folder_ / "watched/sub"), kDescriptor), folder_ / "watched/sub");
}

TEST_F(PathFinderTest, DoesNotBelieveADescriptorThatLeadsElsewhere) {
  Open(folder_ / "watched");
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/sub"), kDescriptor), cwd_) << "as it is written";
}

TEST_F(PathFinderTest, TrustsNoPathOfAnotherFolder) {
  Know(cwd_);
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/sub"), kDescriptor), "unplaced");
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/sub")), "unplaced");
}

TEST_F(PathFinderTest, TakesTheNameAsItIsWrittenWhereNothingIsKnown) {
  const PathRecord parent = Record("PARENT", folder_ / "watched/other/", folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/other");
  context_.folders = nullptr;
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/other");
  cwd_.clear();
  EXPECT_EQ(FolderOf(Record("PARENT", "other/", folder_ / "watched/sub")), "other/");
}

TEST_F(PathFinderTest, FindsAFolderWithoutANameByItsInode) {
  const PathRecord parent = Record("PARENT", "(null)", folder_ / "watched/sub");
  Know(folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/sub");
  context_.folders->Forget("/");
  cwd_ = folder_ / "watched/sub";
  EXPECT_EQ(FolderOf(parent), cwd_) << "it is the working folder itself";
  context_.folders->Forget("/");
  cwd_ = folder_ / "watched";
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/sub") << "or lies in it";
  cwd_.clear();
  EXPECT_EQ(FolderOf(parent), "unplaced");
}

TEST_F(PathFinderTest, TakesTheDeviceOfTheMountForTheRecords) {
  const std::string watched = folder_ / "watched";
  fs::create_directory(folder_ / "proc/self");
  folder_.Write("proc/self/mountinfo",
                "21 1 254:1 / / rw - ext4 none rw\n30 21 7:77 / " + watched + " rw - btrfs none rw\n");
  context_.mounts = std::make_shared<MountTable>(folder_ / "proc", [](int) { return false; });
  const std::string text = common::util::DeviceText(makedev(7, 77));
  EXPECT_EQ(FolderOf(Record("PARENT", watched + "/sub/", watched + "/sub", {{"dev", text}})), watched + "/sub");
  EXPECT_EQ(context_.folders->PathOf({makedev(7, 77), IdentityOf(watched + "/sub").inode}), watched + "/sub");
  const PathRecord object = Record("NORMAL", file_, file_, {{"dev", text}});
  EXPECT_TRUE(Finder().IsAt(file_, object));
  EXPECT_FALSE(Finder().IsAt(file_, Record("NORMAL", file_, file_, {{"dev", "07:4e"}})));
}

TEST_F(PathFinderTest, DoesNotLookAgainForAMomentWhereAFolderWasNot) {
  fakes::FakeClock clock;
  context_.folders = std::make_shared<FolderIdentities>(FolderIdentities::kCapacity, clock);
  const PathRecord parent = Record("PARENT", folder_ / "watched/late/", folder_ / "watched/sub");
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/late");
  fs::rename(folder_ / "watched/sub", folder_ / "watched/late");
  file_ = folder_ / "watched/late/f";
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/late");
  EXPECT_EQ(KnownAt(folder_ / "watched/late"), "unknown") << "nobody has looked";
  clock.Advance(FolderIdentities::kDenialTime);
  EXPECT_EQ(FolderOf(parent), folder_ / "watched/late");
  EXPECT_EQ(KnownAt(folder_ / "watched/late"), folder_ / "watched/late");
}

TEST_F(PathFinderTest, AsksADescriptorForAFolderThatIsNotWhereItIsKnown) {
  Know(folder_ / "watched/sub");
  fs::rename(folder_ / "watched/sub", folder_ / "watched/moved");  // which no record told
  file_ = folder_ / "watched/moved/f";
  Open(folder_ / "watched/moved");
  EXPECT_EQ(FolderOf(Record("PARENT", cwd_, folder_ / "watched/moved"), kDescriptor), folder_ / "watched/moved");
}

TEST_F(PathFinderTest, PlacesNoFolderWithoutANameThatItDoesNotFind) {
  EXPECT_EQ(FolderOf(Record("PARENT", "(null)", folder_ / "watched/sub")), "unplaced");
}

// --- an object in a known folder

TEST_F(PathFinderTest, NamesAnObjectThatNoRecordNamesByALookIntoItsFolder) {
  const PathRecord parent = Record("PARENT", "(null)", folder_ / "watched/sub");
  const PathFinder finder = Finder();
  EXPECT_EQ(finder.ResolveIn(folder_ / "watched/sub", parent, Record("CREATE", "(null)", file_)), file_);
  const PathRecord gone = Record("CREATE", "(null)", file_, {{"inode", "123456789"}});
  EXPECT_EQ(finder.ResolveIn(folder_ / "watched/sub", parent, gone), folder_ / "watched/sub/inode:123456789");
}

TEST_F(PathFinderTest, CallsWhatTheCallTookAwayByItsInode) {
  const PathRecord parent = Record("PARENT", "(null)", folder_ / "watched/sub");
  // An entry of this inode is another name of the file.
  const PathRecord removed = Record("DELETE", "(null)", file_);
  EXPECT_EQ(Finder().ResolveIn(folder_ / "watched/sub", parent, removed),
            folder_ / "watched/sub/inode:" + std::to_string(IdentityOf(file_).inode));
}

TEST_F(PathFinderTest, KnowsTheNameOfAFolderThatTheCallTookAway) {
  Know(folder_ / "watched/sub");
  const PathRecord parent = Record("PARENT", folder_ / "watched/", folder_ / "watched");
  EXPECT_EQ(Finder().ResolveIn(folder_ / "watched", parent, Record("DELETE", "(null)", folder_ / "watched/sub")),
            folder_ / "watched/sub");
  // A new folder may have the inode of an old one.
  context_.folders->Learn(IdentityOf(folder_ / "watched/sub"), folder_ / "watched/old");
  EXPECT_EQ(Finder().ResolveIn(folder_ / "watched", parent, Record("CREATE", "(null)", folder_ / "watched/sub")),
            folder_ / "watched/sub");
}

// --- an object whose folder no record tells

TEST_F(PathFinderTest, TakesAnAbsoluteNameAndOneInTheWorkingFolder) {
  EXPECT_EQ(Alone(Record("NORMAL", file_, file_)), file_);
  cwd_ = folder_ / "watched";
  EXPECT_EQ(Alone(Record("NORMAL", "./sub/f", file_)), file_);
  cwd_.clear();
  EXPECT_THROW(Alone(Record("NORMAL", "sub/f", file_)), edr::EventException);
}

TEST_F(PathFinderTest, FollowsTheDescriptorOfAnObject) {
  Open(file_);
  EXPECT_EQ(Alone(Record("NORMAL", "(null)", file_), kWorkingFolder, kFd), file_);
  cwd_.clear();  // older kernels do not tell one
  EXPECT_EQ(Alone(Record("NORMAL", "(null)", file_), kWorkingFolder, kFd), file_);
}

TEST_F(PathFinderTest, DoesNotTakeAnotherFileForTheOneBehindADescriptor) {
  Open(folder_.Write("watched/other", "abc"));
  const PathRecord object = Record("NORMAL", "(null)", file_);
  EXPECT_EQ(Alone(object, kWorkingFolder, kFd), "unplaced");
  cwd_ = folder_ / "watched/sub";
  EXPECT_EQ(Alone(object, kWorkingFolder, kFd), file_) << "it lies in the working folder";
  cwd_.clear();
  EXPECT_EQ(Alone(object, kWorkingFolder, kFd), "unplaced");
  cwd_ = folder_ / "elsewhere";
  context_.folders = nullptr;
  EXPECT_EQ(Alone(object, kWorkingFolder, kFd), cwd_ + "/inode:" + std::to_string(object.inode));
}

TEST_F(PathFinderTest, KnowsAFolderBehindADescriptorThatIsClosed) {
  Know(folder_ / "watched/sub");
  EXPECT_EQ(Alone(Record("NORMAL", "(null)", folder_ / "watched/sub"), kWorkingFolder, kFd), folder_ / "watched/sub");
  EXPECT_EQ(Alone(Record("NORMAL", "sub", folder_ / "watched/sub"), kDescriptor), folder_ / "watched/sub");
}

// Its process may close it between this look and the next one.
TEST_F(PathFinderTest, GoesThroughTheNameOfAnOpenDescriptorAtOnce) {
  const common::util::UniqueFd fd(open((folder_ / "watched/sub").c_str(), O_PATH));
  const std::string name = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd.Get());
  EXPECT_EQ(Alone(Record("NORMAL", name, folder_ / "watched/sub")), folder_ / "watched/sub");
  EXPECT_EQ(Alone(Record("NORMAL", name, file_)), name) << "it leads to another object";
}

TEST_F(PathFinderTest, FindsANameBelowAnOpenFolder) {
  Open(folder_ / "watched/sub");
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), file_);
}

TEST_F(PathFinderTest, FindsANameBelowADescriptorThatIsTheWorkingFolder) {
  cwd_ = folder_ / "watched/sub";
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), file_);
}

TEST_F(PathFinderTest, LooksForANameBelowAClosedDescriptorInTheKnownFolders) {
  Know(folder_ / "elsewhere");
  Know(folder_ / "watched/sub");
  Know(folder_ / "watched");
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), file_);
  EXPECT_EQ(Alone(Record("NORMAL", "sub/f", file_), kDescriptor), file_);
  fs::create_symlink(file_, folder_ / "watched/link");
  EXPECT_EQ(Alone(Record("NORMAL", "link", file_), kDescriptor), folder_ / "watched/link") << "a call that follows it";
}

TEST_F(PathFinderTest, LooksThatFindTheirFileDoNotWearOut) {
  fakes::FakeClock clock;  // all within one second
  context_.folders = std::make_shared<FolderIdentities>(FolderIdentities::kCapacity, clock);
  Know(folder_ / "watched/sub");
  for (std::uint64_t i = 1; i <= 600; ++i) context_.folders->Learn({1, i}, "/nowhere/" + std::to_string(i));
  for (int look = 0; look < 20; ++look) {
    ASSERT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), file_) << "look " << look;
  }
}

TEST_F(PathFinderTest, TrustsNoNameBelowADescriptorThatNobodyKnows) {
  folder_.Write("elsewhere/f", "another file of that name");
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), "unplaced");
  context_.folders = nullptr;
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), cwd_ + "/f") << "nothing is known at all";
  cwd_.clear();
  EXPECT_EQ(Alone(Record("NORMAL", "f", file_), kDescriptor), "unplaced");
}

// --- records

TEST(FileIdentityTest, ReadsADeviceAsRecordsWriteIt) {
  EXPECT_EQ(DeviceNumberOf("fd:00"), makedev(0xfd, 0));
  EXPECT_EQ(DeviceNumberOf("08:1a"), makedev(8, 0x1a));
  EXPECT_EQ(DeviceNumberOf("103:10001"), makedev(0x103, 0x10001));
  for (const char* text : {"", "fd", ":", "fd:", ":00", "fd:00x", "fd-00", "00:00:00"}) {
    EXPECT_EQ(DeviceNumberOf(text), 0U) << text;
  }
}

TEST(WithCallerTest, ACallerMeansItselfHoweverItIsWritten) {
  EXPECT_EQ(WithCaller("/proc/self/fd/3", 42), "/proc/42/fd/3");
  EXPECT_EQ(WithCaller("/proc/thread-self/root/f", 42), "/proc/42/root/f");
  EXPECT_EQ(WithCaller("//proc/./self//fd/3", 42), "/proc/42/fd/3");
  EXPECT_EQ(WithCaller("/srv/proc/self/f", 42), "/srv/proc/self/f");
  EXPECT_EQ(WithCaller("/srv//myself/./f", 42), "/srv//myself/./f");
  EXPECT_EQ(WithCaller("proc/self/f", 42), "proc/self/f");
}

}  // namespace
}  // namespace zagent::audit::internal
