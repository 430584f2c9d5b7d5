// What becomes of a file event when its file does not stay, with extended coverage and without.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "src/audit/events/AttributeEvent.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/audit/events/RenameEvent.h"
#include "src/edr/process/NameService.h"
#include "src/edr/process/StatHelper.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;
using fakes::AuditRecords;

constexpr unsigned kRename = 82, kChmod = 90, kChown = 92, kOpenAt = 257, kFchownAt = 260, kFchmodAt = 268,
                   kUtimensAt = 280;

class FleetingFilesTest : public ::testing::Test {
 protected:
  FleetingFilesTest() {
    for (const char* name : {"w", "proc/4711/fd"}) fs::create_directories(folder_ / name);
    file_ = folder_.Write("w/f", "abc");
    context_->folders = folders_;
    context_->proc_root = folder_ / "proc";
    context_->extended_coverage = true;
  }

  AuditRecords& Call(unsigned syscall, const AuditRecords::Fields& changes = {}) {
    records_ = std::make_unique<AuditRecords>();
    return records_->Syscall(syscall, changes).Cwd(folder_ / "w");
  }
  template <typename Kind = ReadWriteEvent>
  Kind Build() {
    return Kind(*records_, context_);
  }
  RenameEvent BuildRename() { return RenameEvent(*records_, context_, &other_); }
  // "Write", or why there is no event.
  template <typename Kind = ReadWriteEvent>
  std::string Outcome() {
    try {
      const Kind event = Build<Kind>();
      return event.Refusal() != nullptr ? *event.Refusal() : event.GetAction();
    } catch (const edr::EventException& error) {
      return error.what();
    }
  }
  // The same without extended coverage.
  template <typename Kind = ReadWriteEvent>
  std::string PlainOutcome() {
    context_->extended_coverage = false;
    std::string outcome = Outcome<Kind>();
    context_->extended_coverage = true;
    return outcome;
  }
  // Another file in the place of one that is gone.
  static void Replace(const std::string& path) {
    fs::rename(path, path + ".moved");
    std::ofstream(path) << "another file";
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  std::string file_;
  std::shared_ptr<FolderIdentities> folders_ = std::make_shared<FolderIdentities>();
  std::shared_ptr<FileContext> context_ = std::make_shared<FileContext>();
  std::unique_ptr<AuditRecords> records_;
  std::unique_ptr<DeleteEvent> other_;
};

// --- attributes

TEST_F(FleetingFilesTest, AFileThatIsGoneHasTheAttributesThatTheCallGaveIt) {
  const auto change = [this](unsigned call, const AuditRecords::Fields& arguments) {
    const std::string file = folder_.Write("w/gone", "abc");
    chmod(file.c_str(), 0644);
    Call(call, arguments).Path("NORMAL", file);
    fs::remove(file);
    AttributeEvent event = Build<AttributeEvent>();
    EXPECT_EQ(event.Refusal(), nullptr);
    return *event.GetNewFile();
  };
  EXPECT_EQ(change(kChmod, {{"a1", "1ed"}}).GetPermission(), 755U);
  EXPECT_EQ(change(kFchmodAt, {{"a2", "180"}}).GetPermission(), 600U);
  EXPECT_EQ(change(kChmod, {{"a1", "1ed"}, {"success", "no"}}).GetPermission(), 644U);
  const common::ImageInfo owned = change(kChown, {{"a1", "3e8"}, {"a2", "ffffffff"}});
  EXPECT_EQ(owned.GetOwnerId(), 1000U);
  EXPECT_EQ(owned.GetGroupId(), getegid());
  EXPECT_EQ(owned.GetPermission(), 644U);
  EXPECT_EQ(change(kFchownAt, {{"a2", "ffffffff"}, {"a3", "7"}}).GetGroupId(), 7U);
  EXPECT_EQ(change(kUtimensAt, {}).GetPermission(), 644U);

  const std::string file = folder_.Write("w/gone", "abc");
  Call(kChmod, {{"a1", "1ed"}}).Path("NORMAL", file);
  fs::remove(file);
  EXPECT_EQ(PlainOutcome<AttributeEvent>(), "File stat does not exist for Change event with ID 77");
}

// --- files that do not stay

TEST_F(FleetingFilesTest, AFileThatIsGoneWhenItsRestEndsKeepsItsEvent) {
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file_);
  ReadWriteEvent event = Build();
  EXPECT_EQ(event.GetFileSize(), 3);
  fs::remove(file_);
  event.Refresh();
  EXPECT_EQ(event.GetPath(), file_);
  EXPECT_EQ(event.GetFileSize(), -1);
  EXPECT_EQ(event.GetFileModificationTime(), event.GetTimestamp());
  EXPECT_TRUE(event.GetFileContentHash(edr::ContentHash::Sha256).empty());
  EXPECT_TRUE(event.GetFileContent().empty());
  EXPECT_EQ(event.GetFileTypeDesc(), "");
  EXPECT_EQ(event.GetObjectType(), edr::ObjectType::File);
}

TEST_F(FleetingFilesTest, AFileThatWasReplacedWhenItsRestEndsSaysNothingOfTheOther) {
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file_);
  ReadWriteEvent event = Build();
  Replace(file_);
  event.Refresh();
  EXPECT_EQ(event.GetFileSize(), -1);
  EXPECT_TRUE(event.GetFileContentHash(edr::ContentHash::Md5).empty());
  EXPECT_TRUE(event.GetFileContent().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "differs from the ImageInfo"));
}

TEST_F(FleetingFilesTest, WithoutItSuchEventsAreLost) {
  context_->extended_coverage = false;
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file_);
  ReadWriteEvent replaced = Build();
  Replace(file_);
  EXPECT_THROW(replaced.Refresh(), common::StatHelperException);
  fs::remove(file_);
  EXPECT_THROW(replaced.Refresh(), edr::EventException);
}

TEST_F(FleetingFilesTest, AFileThatWasReplacedBeforeAnybodyLookedKeepsItsEvent) {
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", file_);
  Replace(file_);
  const ReadWriteEvent event = Build();
  EXPECT_EQ(event.GetPath(), file_);
  EXPECT_EQ(event.GetFileSize(), -1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "differs from the object of the audit event with ID 77"));
}

TEST_F(FleetingFilesTest, ANameThatIsNotTheObjectsIsNoEventAllTheSame) {
  Call(kOpenAt, {{"a2", "490001"}}).Path("NORMAL", folder_ / "w", file_);  // O_TMPFILE: a file without a name
  EXPECT_EQ(Outcome(), "File " + (folder_ / "w") + " differs from the object of the audit event with ID 77");
}

TEST_F(FleetingFilesTest, ARenameWhoseDestinationIsAnotherFileByNowKeepsItsEvent) {
  const std::string moved = folder_.Write("w/g", "abc");
  Call(kRename, {{"items", "4"}}).Path("PARENT", folder_ / "w/", folder_ / "w");
  records_->Path("PARENT", folder_ / "w/", folder_ / "w")
      .Path("DELETE", folder_ / "w/old", moved)
      .Path("CREATE", moved);
  Replace(moved);
  const RenameEvent event = BuildRename();
  EXPECT_EQ(event.GetFile()->GetPath(), folder_ / "w/old");
  EXPECT_EQ(event.GetNewFile()->GetPath(), moved);
  EXPECT_EQ(event.GetFileSize(), -1);
}

TEST_F(FleetingFilesTest, ALinkWhoseTargetIsGoneKeepsItsName) {
  const std::string link = folder_ / "w/link";
  fs::create_symlink(file_, link);
  Call(kChmod, {{"a1", "1ed"}}).Path("NORMAL", link, file_);
  fs::remove(file_);
  EXPECT_EQ(Build<AttributeEvent>().GetPath(), link);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Failed to resolve link " + link));
}

TEST_F(FleetingFilesTest, ALinkThatLeadsElsewhereMeanwhileIsNotFollowed) {
  const std::string other = folder_.Write("other", "another file");
  Call(kOpenAt, {{"a2", "1"}}).Path("NORMAL", folder_ / "w/link", file_);
  fs::create_symlink(other, folder_ / "w/link");
  const auto event = Build();
  EXPECT_EQ(event.GetPath(), folder_ / "w/link");
  EXPECT_EQ(event.GetFileSize(), -1);
}

}  // namespace
}  // namespace zagent::audit::internal
