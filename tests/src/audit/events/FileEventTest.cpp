// How a FileEvent is put together from its records; the answers that it gives later are in FileEventAnswersTest.cpp.
#include "src/audit/events/FileEvent.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "src/audit/events/AttributeEvent.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/edr/process/NameService.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

constexpr unsigned kOpenAt = 257;
constexpr unsigned kFchmodAt = 268;
constexpr unsigned kUnlink = 87;
constexpr unsigned kLink = 86;
const AuditRecords::Fields kForWriting = {{"a2", "1"}};

std::string Hex(std::uint64_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "%lx", number);
  return text;
}

class FileEventTest : public ::testing::Test {
 protected:
  FileEventTest() { EXPECT_EQ(mkdir((folder_ / "sub").c_str(), 0755), 0); }

  static struct stat StatOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(lstat(path.c_str(), &result), 0) << path;
    return result;
  }
  template <typename Kind = ReadWriteEvent>
  static std::string ErrorOf(AuditRecords& records) {
    try {
      const Kind event(records, nullptr);
      return event.Refusal() != nullptr ? *event.Refusal() : "no EventException";
    } catch (const edr::EventException& error) {
      return error.what();
    }
  }
  // The opening of `name` for writing, in the test's folder.
  AuditRecords& OpenForWriting(const AuditRecords::Fields& changes = kForWriting) {
    return records_.Syscall(kOpenAt, changes).Cwd(folder_.Path());
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  AuditRecords records_;
};

TEST_F(FileEventTest, DescribesTheFileOfAnAbsolutePath) {
  const std::string file = folder_.Write("h", "abc");
  OpenForWriting().Path("PARENT", folder_.Path() + "/").Path("NORMAL", file).Proctitle("sh -c x");
  const ReadWriteEvent event(records_, nullptr);
  const common::ImageInfo& image = *event.GetFile();
  EXPECT_EQ(image.GetPath(), file);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(image.GetInode(), StatOf(file).st_ino);
  EXPECT_EQ(image.GetDevice(), common::util::DeviceText(StatOf(file).st_dev));
  EXPECT_EQ(image.GetPermission(), common::PermissionOf(StatOf(file).st_mode));
  EXPECT_EQ(image.GetOwnerName(), common::UserName(geteuid()));
  EXPECT_EQ(image.GetGroupName(), common::GroupName(getegid()));
  EXPECT_EQ(event.GetCommandLine(), "sh -c x");
  EXPECT_EQ(event.GetObjectType(), edr::ObjectType::File);
  EXPECT_FALSE(event.IsSymlink());
  EXPECT_EQ(event.GetParentInode(), StatOf(folder_.Path()).st_ino);
  EXPECT_EQ(event.GetParentDeviceID(), common::util::DeviceText(StatOf(folder_.Path()).st_dev));
  EXPECT_THROW(static_cast<void>(event.GetCwd()), std::runtime_error);
  EXPECT_THROW(static_cast<void>(event.GetNewFile()), std::runtime_error);
  EXPECT_THROW(static_cast<void>(event.GetFileReadStatus()), std::runtime_error);
}

TEST_F(FileEventTest, ResolvesARelativeNameWhoseParentIsTheWorkingFolder) {
  const std::string file = folder_.Write("g", "abc");
  OpenForWriting().Path("PARENT", folder_.Path()).Path("NORMAL", "g", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, ResolvesARelativeNameThatRepeatsItsRelativeParent) {
  const std::string file = folder_.Write("sub/f", "abc");
  OpenForWriting().Path("PARENT", "sub/", folder_ / "sub").Path("NORMAL", "sub/f", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, LooksTheParentUpOnDiskWhenNoRecordNamesIt) {
  const std::string file = folder_.Write("sub/f", "abc");
  OpenForWriting().Path("NORMAL", "sub/../sub//./f", file);
  const ReadWriteEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), StatOf(folder_ / "sub").st_ino);
}

TEST_F(FileEventTest, IsNoEventWhenTheParentCannotBeFound) {
  const std::string file = folder_.Write("f", "abc");
  OpenForWriting().Path("NORMAL", "/no/such/folder/f", file);
  EXPECT_EQ(ErrorOf(records_), "Failed to get parent inode/deviceid for Write event");
}

TEST_F(FileEventTest, KeepsWhatWasOpenedAgainThroughADescriptorOfAProcessThatIsGone) {
  const std::string file = folder_.Write("f", "abc");
  OpenForWriting().Path("NORMAL", "/proc/2147483646/fd/3", file);
  const ReadWriteEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), "/proc/2147483646/fd/3") << "the rule that the kernel names may tell where it lies";
  EXPECT_EQ(event.GetParentInode(), 0U);
}

TEST_F(FileEventTest, FollowsADescriptorWhenTheRecordNamesTheWrongFolder) {
  const std::string file = folder_.Write("sub/viafd", "abc");
  const common::util::UniqueFd fd(open((folder_ / "sub").c_str(), O_RDONLY | O_DIRECTORY));
  OpenForWriting({{"a0", Hex(fd.Get())}, {"a2", "41"}, {"pid", std::to_string(getpid())}});
  // The name is the working folder's, the inode is that of the folder behind the descriptor.
  records_.Path("PARENT", folder_.Path(), folder_ / "sub").Path("CREATE", "viafd", file);
  const ReadWriteEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(event.GetType(), edr::EventType::Create);
  EXPECT_EQ(event.GetFileSize(), 3);
}

TEST_F(FileEventTest, FollowsADescriptorToTheFolderBelowIt) {
  ASSERT_EQ(mkdir((folder_ / "sub/deep").c_str(), 0755), 0);
  const std::string file = folder_.Write("sub/deep/f", "abc");
  const common::util::UniqueFd fd(open((folder_ / "sub").c_str(), O_RDONLY | O_DIRECTORY));
  OpenForWriting({{"a0", Hex(fd.Get())}, {"a2", "1"}, {"pid", std::to_string(getpid())}});
  records_.Path("PARENT", "deep/", folder_ / "sub/deep").Path("NORMAL", "deep/f", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, DoesNotTakeADescriptorThatLeadsElsewhere) {
  ASSERT_EQ(mkdir((folder_ / "other").c_str(), 0755), 0);
  const std::string file = folder_.Write("sub/f", "abc");
  const common::util::UniqueFd fd(open((folder_ / "other").c_str(), O_RDONLY | O_DIRECTORY));
  OpenForWriting({{"a0", Hex(fd.Get())}, {"a2", "1"}, {"pid", std::to_string(getpid())}});
  records_.Path("PARENT", folder_.Path(), folder_ / "sub").Path("NORMAL", "f", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), folder_ / "f");
}

TEST_F(FileEventTest, KeepsTheRecordedFolderOfAProcessThatIsGone) {
  const std::string file = folder_.Write("sub/f", "abc");
  OpenForWriting({{"a0", "4"}, {"a2", "1"}, {"pid", "2147483647"}});
  records_.Path("PARENT", folder_.Path(), folder_ / "sub").Path("NORMAL", "f", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), folder_ / "f");
}

TEST_F(FileEventTest, KeepsARecordedFolderThatIsTheRealOneWhateverTheDescriptorBecame) {
  const std::string file = folder_.Write("f", "abc");
  const common::util::UniqueFd fd(open((folder_ / "sub").c_str(), O_RDONLY | O_DIRECTORY));
  OpenForWriting({{"a0", Hex(fd.Get())}, {"a2", "1"}, {"pid", std::to_string(getpid())}});
  records_.Path("PARENT", folder_.Path()).Path("NORMAL", "f", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, FollowsADescriptorWithoutAParentRecord) {
  const std::string file = folder_.Write("sub/f", "abc");
  const common::util::UniqueFd fd(open((folder_ / "sub").c_str(), O_RDONLY | O_DIRECTORY));
  records_.Syscall(kFchmodAt, {{"a0", Hex(fd.Get())}, {"items", "1"}, {"pid", std::to_string(getpid())}});
  records_.Cwd(folder_.Path()).Path("NORMAL", "f", file);
  const AttributeEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), StatOf(folder_ / "sub").st_ino);
}

TEST_F(FileEventTest, NeedsAnObjectRecord) {
  OpenForWriting().Path("PARENT", folder_.Path());
  EXPECT_EQ(ErrorOf(records_), "Missing/incorrect PATH records in file event");
}

TEST_F(FileEventTest, LeavesOutARecordThatDescribesNoFileAndSaysWhy) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  OpenForWriting().Path("PARENT", folder_.Path()).Path("NORMAL", fifo);
  EXPECT_EQ(ErrorOf(records_), "Missing/incorrect PATH records in file event");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Unknown mode 010600 in PATH record")) << log_.All();
}

TEST_F(FileEventTest, LeavesOutRecordsOfAnUnknownType) {
  const std::string file = folder_.Write("f", "abc");
  OpenForWriting().Path("PARENT", folder_.Path()).Path("UNKNOWN", "x", file).Path("NORMAL", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Unsupported PATH record in Create event of type: UNKNOWN"));
}

TEST_F(FileEventTest, RefusesASecondWorkingFolder) {
  OpenForWriting().Cwd("/");
  EXPECT_EQ(ErrorOf(records_), "Multiple CWD records found in Write event with ID 77");
}

TEST_F(FileEventTest, NeedsAWorkingFolderForRelativeNames) {
  const std::string file = folder_.Write("f", "abc");
  records_.Syscall(kOpenAt, kForWriting).Path("NORMAL", "f", file);
  EXPECT_EQ(ErrorOf(records_), "Missing CWD with relative path");
}

TEST_F(FileEventTest, CombinesRecordsOfOneObjectAndRefusesThoseOfTwo) {
  const std::string file = folder_.Write("f", "abc");
  const std::string other = folder_.Write("other", "abc");
  OpenForWriting().Path("NORMAL", file).Path("NORMAL", file);
  EXPECT_EQ(ReadWriteEvent(records_, nullptr).GetPath(), file);
  AuditRecords two;
  two.Syscall(kOpenAt, kForWriting).Cwd("/").Path("NORMAL", file).Path("NORMAL", other);
  EXPECT_EQ(ErrorOf(two), "Cannot combine records with missing or different inodes");
}

TEST_F(FileEventTest, PutsTheNextRecordInThePlaceOfASymbolicLink) {
  const std::string file = folder_.Write("f", "abc");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("f", link.c_str()), 0);
  OpenForWriting().Path("PARENT", folder_.Path()).Path("NORMAL", link).Path("NORMAL", file);
  const ReadWriteEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_FALSE(event.IsSymlink());
}

TEST_F(FileEventTest, TakesTheCreatedNameOfAHardLinkInEitherOrder) {
  const std::string file = folder_.Write("f", "abc");
  const std::string hard = folder_ / "hard";
  ASSERT_EQ(link(file.c_str(), hard.c_str()), 0);
  records_.Syscall(kLink).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", file).Path("CREATE", hard);
  EXPECT_EQ(CreateEvent(records_, nullptr).GetPath(), hard);
  AuditRecords swapped;
  swapped.Syscall(kLink).Cwd("/").Path("PARENT", folder_.Path()).Path("CREATE", hard).Path("NORMAL", file);
  EXPECT_EQ(CreateEvent(swapped, nullptr).GetPath(), hard);
}

TEST_F(FileEventTest, DropsTheRecordOfAnotherObjectBesideACreatedOne) {
  const std::string made = folder_.Write("made", "abc");
  const std::string other = folder_.Write("other", "abc");
  records_.Syscall(kLink).Cwd("/").Path("PARENT", folder_.Path()).Path("NORMAL", other).Path("CREATE", made);
  EXPECT_EQ(CreateEvent(records_, nullptr).GetPath(), made);
}

TEST_F(FileEventTest, RefusesRecordsOfDifferentTypesThatTellOfNoChange) {
  const std::string file = folder_.Write("f", "abc");
  // An untyped record that took the object's place, and a typed one.
  OpenForWriting({{"items", "1"}, {"a2", "1"}}).Path("", file).Path("NORMAL", file);
  EXPECT_EQ(ErrorOf(records_), "Cannot combine records of different objtype");
}

TEST_F(FileEventTest, ReadsTheRolesOfUntypedRecordsFromTheirItems) {
  const std::string file = folder_.Write("f", "abc");
  AuditRecords one;
  one.Syscall(kUnlink, {{"items", "1"}}).Cwd("/").Path("", file);
  EXPECT_EQ(DeleteEvent(one, nullptr).GetPath(), file);
  AuditRecords two;
  two.Syscall(kUnlink, {{"items", "2"}}).Cwd("/").Path("", folder_.Path()).Path("", "f", file);
  EXPECT_EQ(DeleteEvent(two, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, IgnoresTheFirstOfThreeUntypedRecords) {
  const std::string file = folder_.Write("f", "abc");
  const std::string ignored = folder_.Write("ignored", "abc");
  records_.Syscall(kLink, {{"items", "3"}}).Cwd("/").Path("", ignored).Path("", folder_.Path()).Path("", "f", file);
  const CreateEvent event(records_, nullptr);
  EXPECT_EQ(event.GetPath(), file);
  EXPECT_EQ(event.GetParentInode(), StatOf(folder_.Path()).st_ino);
}

TEST_F(FileEventTest, TakesUntypedRecordsInOrderWhenThereAreMany) {
  const std::string file = folder_.Write("f", "abc");
  records_.Syscall(kUnlink, {{"items", "4"}}).Cwd("/").Path("", folder_.Path()).Path("", "f", file);
  EXPECT_EQ(DeleteEvent(records_, nullptr).GetPath(), file);
}

TEST_F(FileEventTest, RefusesMoreUntypedRecordsThanRoles) {
  const std::string file = folder_.Write("f", "abc");
  AuditRecords no_row;
  no_row.Syscall(kUnlink, {{"items", "1"}}).Cwd("/").Path("", file).Path("", file);
  EXPECT_EQ(ErrorOf<DeleteEvent>(no_row), "Too many PATH records in Delete event");
  AuditRecords taken;
  taken.Syscall(kUnlink, {{"items", "4"}}).Cwd("/").Path("", file).Path("", file).Path("", file);
  EXPECT_EQ(ErrorOf<DeleteEvent>(taken), "Too many PATH records in Delete event");
}

}  // namespace
}  // namespace zagent::audit::internal
