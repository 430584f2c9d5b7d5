#include "src/audit/engine/TruePaths.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "src/audit/events/RenameEvent.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using fakes::FakeEvent;
using Paths = std::vector<std::string>;

class TruePathsTest : public ::testing::Test {
 protected:
  TruePathsTest() {
    std::filesystem::create_directories(real_ + "/sub");
    std::filesystem::create_directory_symlink(real_, link_);
  }

  // An event of a file that lies in `folder`, as its record tells, and was called by `path`.
  static FakeEvent EventAt(const std::string& path, const std::string& folder) {
    FakeEvent event(EventType::Write, "Write", path);
    struct stat found {};
    EXPECT_EQ(stat(folder.c_str(), &found), 0);
    event.parent_inode = found.st_ino;
    event.parent_device = common::util::DeviceText(found.st_dev);
    return event;
  }
  static FileIdentity IdentityOf(const FakeEvent& event) {
    return {DeviceNumberOf(event.parent_device), event.parent_inode};
  }

  // By way of the link: old became sub/new.
  [[nodiscard]] std::unique_ptr<RenameEvent> RenameByLink() const {
    const std::string file = folder_.Write("real/sub/new", "x");
    fakes::AuditRecords records;
    records.Syscall(82, {{"items", "4"}})
        .Cwd("/")
        .Path("PARENT", link_ + "/", real_)
        .Path("PARENT", link_ + "/sub/", real_ + "/sub")
        .Path("DELETE", link_ + "/old", file)
        .Path("CREATE", link_ + "/sub/new", file);
    return std::make_unique<RenameEvent>(records, nullptr, nullptr);
  }

  fakes::TempFolder folder_;
  // Where the folder of this test is reached by a link itself, that is none of its concerns.
  const std::string base_ = std::filesystem::canonical(folder_.Path());
  const std::string real_ = base_ + "/real", link_ = base_ + "/link";
  const std::shared_ptr<FolderIdentities> folders_ = std::make_shared<FolderIdentities>();
  const TruePaths paths_{folders_, nullptr};
};

TEST_F(TruePathsTest, FollowsALinkAmongTheFolders) {
  EXPECT_EQ(paths_.OfFile(EventAt(link_ + "/f", real_)), (Paths{real_ + "/f"}));
  EXPECT_EQ(paths_.OfFile(EventAt(link_ + "/sub/f", real_ + "/sub")), (Paths{real_ + "/sub/f"}));
}

TEST_F(TruePathsTest, FollowsNoLinkThatLeadsToAnotherFolderByNow) {
  const FakeEvent event = EventAt(link_ + "/f", real_);
  std::filesystem::remove(link_);
  std::filesystem::create_directory_symlink(base_, link_);
  EXPECT_EQ(paths_.OfFile(event), Paths());
}

TEST_F(TruePathsTest, KnowsWhereAFolderIsThatIsNotReachedByItsName) {
  const FakeEvent event = EventAt("/nowhere/f", real_);
  EXPECT_EQ(paths_.OfFile(event), Paths());
  folders_->Learn(IdentityOf(event), real_);
  EXPECT_EQ(paths_.OfFile(event), (Paths{real_ + "/f"}));
}

TEST_F(TruePathsTest, HasNothingToAddToATruePath) {
  const FakeEvent event = EventAt(real_ + "/f", real_);
  folders_->Learn(IdentityOf(event), real_);
  EXPECT_EQ(paths_.OfFile(event), Paths());
}

TEST_F(TruePathsTest, LooksAtBothEndsOfARename) {
  FakeEvent event = EventAt(link_ + "/old", real_);
  EXPECT_EQ(paths_.OfNewFile(event), Paths()) << "there is none";
  event.type = EventType::Rename;
  event.new_file = common::ImageInfo(link_ + "/sub/new");
  EXPECT_EQ(paths_.OfFile(event), Paths()) << "where it came from is not told";
  EXPECT_EQ(paths_.OfNewFile(event), Paths()) << "the folder of the new name is not the one that was meant";
  event.new_file = common::ImageInfo(link_ + "/new");
  EXPECT_EQ(paths_.OfNewFile(event), (Paths{real_ + "/new"}));

  const auto rename = RenameByLink();
  EXPECT_EQ(paths_.OfFile(*rename), (Paths{real_ + "/old"}));
  EXPECT_EQ(paths_.OfNewFile(*rename), (Paths{real_ + "/sub/new"}));
  EXPECT_EQ(paths_.OfFile(*rename->Clone()), (Paths{real_ + "/old"}));
}

TEST_F(TruePathsTest, ARenameDidNotBeginWhereTheLinkLeadsByNow) {
  const auto rename = RenameByLink();
  std::filesystem::create_directories(base_ + "/another");
  std::filesystem::remove(link_);
  std::filesystem::create_directory_symlink(base_ + "/another", link_);
  EXPECT_EQ(paths_.OfFile(*rename), Paths());
  EXPECT_EQ(paths_.OfNewFile(*rename), Paths());
}

TEST_F(TruePathsTest, KnowsAWatchedFolderWhateverItWasCalled) {
  const auto rule = fakes::FakeRule::Directory("rule", real_ + "/", {EventType::Write});
  EXPECT_EQ(paths_.OfFileAt(*rule, EventAt("/in/a/jail/f", real_)), real_ + "/f");
  EXPECT_EQ(paths_.OfFileAt(*rule, EventAt("/in/a/jail/f", real_ + "/sub")), std::nullopt);
  EXPECT_EQ(paths_.OfFileAt(*fakes::FakeRule::File("rule", real_ + "/f", {}), EventAt("/jail/f", real_)), std::nullopt);
}

TEST_F(TruePathsTest, FindsWhatWasCalledByADescriptorOfAProcessThatIsGone) {
  const std::string file = folder_.Write("real/f", "");
  struct stat found {};
  ASSERT_EQ(stat(file.c_str(), &found), 0);
  FakeEvent event(EventType::Write, "Write", "");
  event.file = common::ImageInfo("/proc/999999999/fd/3", found);
  const auto rule = fakes::FakeRule::Directory("rule", real_, {EventType::Write});
  EXPECT_EQ(paths_.OfFileAt(*rule, event), real_ + "/f");
  EXPECT_EQ(paths_.OfFileAt(*fakes::FakeRule::File("rule", real_ + "/f", {}), event), real_ + "/f");
  EXPECT_EQ(paths_.OfFileAt(*fakes::FakeRule::Directory("rule", real_ + "/sub", {}), event), std::nullopt);
}

TEST_F(TruePathsTest, AsksADescriptorOfAProcessThatIsThere) {
  const std::string file = folder_.Write("real/sub/f", "");
  const common::util::UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat found {};
  ASSERT_EQ(fstat(fd.Get(), &found), 0);
  FakeEvent event(EventType::Write, "Write", "");
  event.file = common::ImageInfo("/proc/self/fd/" + std::to_string(fd.Get()), found);
  const auto rule = fakes::FakeRule::Directory("rule", base_, {EventType::Write});
  EXPECT_EQ(paths_.OfFileAt(*rule, event), real_ + "/sub/f");
}

TEST_F(TruePathsTest, CopesWithEventsThatTellLittle) {
  FakeEvent event;
  EXPECT_EQ(paths_.OfFile(event), Paths());
  event.file = common::ImageInfo("relative");
  EXPECT_EQ(paths_.OfFile(event), Paths());
  event.file = common::ImageInfo("/f");
  EXPECT_EQ(paths_.OfFile(event), Paths());
  EXPECT_EQ(TruePaths(nullptr, nullptr).OfFile(EventAt(link_ + "/f", real_)), (Paths{real_ + "/f"}));
}

TEST_F(TruePathsTest, FindsTheNameOfAFileWithinTheFolderOfARule) {
  const auto rule = fakes::FakeRule::Directory("r", real_, {EventType::Write});
  EXPECT_EQ(paths_.Within(*rule, EventAt(link_ + "/sub/f", real_ + "/sub")).file, real_ + "/sub/f");
  folders_->Learn(IdentityOf(EventAt("/f", real_ + "/sub")), real_ + "/sub");
  EXPECT_EQ(paths_.Within(*rule, EventAt("/in/a/jail/f", real_ + "/sub")).file, real_ + "/sub/f");
  EXPECT_FALSE(paths_.Within(*rule, EventAt(base_ + "/f", base_)).file);
}

TEST_F(TruePathsTest, KnowsTheFolderOfARuleAmongThoseOnTheWayToAFileThatIsGone) {
  const auto rule = fakes::FakeRule::Directory("r", real_ + "/", {EventType::Write});
  const FakeEvent event = EventAt(link_ + "/sub/f", real_ + "/sub");
  std::filesystem::rename(real_ + "/sub", base_ + "/away");
  EXPECT_EQ(paths_.Within(*rule, event).file, real_ + "/sub/f");
  const auto file_rule = fakes::FakeRule::File("r", real_ + "/sub/f", {EventType::Write});
  EXPECT_FALSE(paths_.Within(*file_rule, event).file);
}

TEST_F(TruePathsTest, KnowsTheFileOfARuleByItsOtherLinks) {
  folder_.Write("real/f", "x");
  std::filesystem::create_hard_link(real_ + "/f", base_ + "/hard");
  struct stat found {};
  ASSERT_EQ(stat((base_ + "/hard").c_str(), &found), 0);
  FakeEvent event(EventType::Delete, "Delete", base_ + "/hard");
  event.file = common::ImageInfo(base_ + "/hard", found);
  EXPECT_TRUE(paths_.IsFileOf(*fakes::FakeRule::File("r", real_ + "/f", {EventType::Write}), event));
  EXPECT_FALSE(paths_.IsFileOf(*fakes::FakeRule::File("r", real_ + "/g", {EventType::Write}), event));
  EXPECT_FALSE(paths_.IsFileOf(*fakes::FakeRule::Directory("r", real_ + "/f", {EventType::Write}), event));

  std::filesystem::create_symlink(real_ + "/f", base_ + "/symbolic");
  EXPECT_TRUE(paths_.IsFileOf(*fakes::FakeRule::File("r", base_ + "/symbolic", {EventType::Write}), event));

  found.st_dev += 1;
  event.file = common::ImageInfo(base_ + "/hard", found);
  EXPECT_FALSE(paths_.IsFileOf(*fakes::FakeRule::File("r", real_ + "/f", {EventType::Write}), event))
      << "another device has a file of this number, too";
}

}  // namespace
}  // namespace zagent::audit::internal
