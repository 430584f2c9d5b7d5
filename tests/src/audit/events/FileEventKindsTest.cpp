// Which calls make which event: ReadWriteEvent, CreateEvent, DeleteEvent and AttributeEvent.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
using Fields = AuditRecords::Fields;

class FileEventKindsTest : public ::testing::Test {
 protected:
  FileEventKindsTest() : file_(folder_.Write("f", "abc")), link_(folder_ / "link") {
    EXPECT_EQ(symlink("f", link_.c_str()), 0);
  }

  // An event of the call on `path`, whose record has this type and the identity of `object`.
  template <typename Kind>
  std::unique_ptr<Kind> Build(unsigned syscall, const std::string& word, const Fields& changes, const std::string& path,
                              const std::string& object) {
    AuditRecords records;
    records.Syscall(syscall, changes).Cwd("/");
    // Without a type word the item number tells the role, and a parent comes first.
    records.Path(word.empty() ? "" : "PARENT", folder_.Path()).Path(word, path, object);
    return std::make_unique<Kind>(records, nullptr);
  }
  template <typename Kind>
  std::unique_ptr<Kind> Build(unsigned syscall, const std::string& word, const Fields& changes = {}) {
    return Build<Kind>(syscall, word, changes, file_, file_);
  }
  template <typename Kind>
  std::string ErrorOf(unsigned syscall, const std::string& word, const Fields& changes = {}) {
    try {
      Build<Kind>(syscall, word, changes);
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  }

  template <typename Call>
  static std::string TextOf(const Call& call) {
    try {
      call();
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  }
  void ParsePathRecord(edr::Event& event) const {
    const Fields fields = AuditRecords::PathFields("NORMAL", file_, file_);
    event.ParseRecord(audit::internal::record_type::kPath, AuditRecords::ViewOf(fields));
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  std::string file_;
  std::string link_;
};

using ReadWriteEventTest = FileEventKindsTest;

TEST_F(ReadWriteEventTest, TellsReadsFromWritesByTheCall) {
  for (const unsigned syscall : {0U, 17U, 19U, 295U}) {
    const auto event = Build<ReadWriteEvent>(syscall, "NORMAL");
    EXPECT_EQ(event->GetType(), edr::EventType::Read) << syscall;
    EXPECT_EQ(event->GetAction(), "Read");
  }
  for (const unsigned syscall : {1U, 18U, 20U, 296U}) {
    const auto event = Build<ReadWriteEvent>(syscall, "NORMAL");
    EXPECT_EQ(event->GetType(), edr::EventType::Write) << syscall;
    EXPECT_EQ(event->GetAction(), "Write");
  }
}

TEST_F(ReadWriteEventTest, TellsWhatAnOpenIsForByItsFlags) {
  EXPECT_EQ(Build<ReadWriteEvent>(2, "NORMAL", {{"a1", "0"}})->GetType(), edr::EventType::Read);
  EXPECT_EQ(Build<ReadWriteEvent>(2, "NORMAL", {{"a1", "1"}})->GetType(), edr::EventType::Write);
  for (const unsigned syscall : {257U, 304U}) {
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "NORMAL", {{"a2", "0"}})->GetType(), edr::EventType::Read);
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "NORMAL", {{"a2", "10000"}})->GetType(), edr::EventType::Read);
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "NORMAL", {{"a2", "1"}})->GetType(), edr::EventType::Write);
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "NORMAL", {{"a2", "2"}})->GetType(), edr::EventType::Write);
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "NORMAL", {{"a2", "41"}})->GetType(), edr::EventType::Write);
    EXPECT_EQ(Build<ReadWriteEvent>(syscall, "", {{"a2", "1"}})->GetType(), edr::EventType::Write);
  }
}

TEST_F(ReadWriteEventTest, IsACreateWhenTheOpenMadeTheFile) {
  const auto event = Build<ReadWriteEvent>(257, "CREATE", {{"a2", "41"}});
  EXPECT_EQ(event->GetType(), edr::EventType::Create);
  EXPECT_EQ(event->GetAction(), "Create");
  EXPECT_EQ(Build<ReadWriteEvent>(257, "CREATE", {{"a2", "40"}})->GetType(), edr::EventType::Read);
}

TEST_F(ReadWriteEventTest, IsNotMadeOfTruncation) {
  EXPECT_EQ(ErrorOf<ReadWriteEvent>(76, "NORMAL"), "Invalid syscall for Write event: 76");
  EXPECT_EQ(ErrorOf<ReadWriteEvent>(77, "NORMAL"), "Invalid syscall for Write event: 77");
}

TEST_F(ReadWriteEventTest, RefusesTheRecordOfADeletedObject) {
  EXPECT_EQ(ErrorOf<ReadWriteEvent>(1, "DELETE"), "Invalid type of PATH record for Write event: DELETE");
}

TEST_F(ReadWriteEventTest, KeepsUnsuccessfulAttempts) {
  const auto event = Build<ReadWriteEvent>(257, "NORMAL", {{"a2", "1"}, {"success", "no"}, {"exit", "-13"}});
  EXPECT_FALSE(event->IsSuccessful());
  EXPECT_EQ(event->GetPath(), file_);
}

using CreateEventTest = FileEventKindsTest;

TEST_F(CreateEventTest, IsMadeOfEveryCallThatMakesAnObject) {
  for (const unsigned syscall : {83U, 85U, 86U, 133U, 258U, 259U, 265U}) {
    const auto event = Build<CreateEvent>(syscall, "CREATE");
    EXPECT_EQ(event->GetType(), edr::EventType::Create) << syscall;
    EXPECT_EQ(event->GetAction(), "Create");
    EXPECT_EQ(event->GetFileSize(), 3);
  }
  EXPECT_EQ(Build<CreateEvent>(83, "")->GetPath(), file_);
}

TEST_F(CreateEventTest, LooksAtANewSymbolicLinkItself) {
  for (const unsigned syscall : {88U, 266U}) {
    const auto event = Build<CreateEvent>(syscall, "CREATE", {}, link_, link_);
    EXPECT_EQ(event->GetPath(), link_);
    EXPECT_TRUE(event->IsSymlink());
  }
}

TEST_F(CreateEventTest, WantsToSeeACreatingFlagOnAnOpen) {
  EXPECT_EQ(Build<CreateEvent>(2, "CREATE", {{"a1", "41"}})->GetPath(), file_);
  EXPECT_EQ(ErrorOf<CreateEvent>(2, "CREATE", {{"a1", "1"}}), "open() must specify O_CREAT for Create event");
  for (const unsigned syscall : {257U, 304U}) {
    EXPECT_EQ(Build<CreateEvent>(syscall, "CREATE", {{"a2", "41"}})->GetPath(), file_);
    EXPECT_EQ(ErrorOf<CreateEvent>(syscall, "CREATE", {{"a2", "1"}}),
              "openat()/open_by_handle_at() must specify O_CREAT for Create event");
  }
}

TEST_F(CreateEventTest, IsNotMadeOfACreatOfAnExistingFile) {
  EXPECT_EQ(ErrorOf<CreateEvent>(85, "NORMAL"), "Missing create PATH record for Create event");
}

TEST_F(CreateEventTest, RefusesOtherCalls) {
  EXPECT_EQ(ErrorOf<CreateEvent>(87, "CREATE"), "Invalid syscall for Create event: 87");
}

using DeleteEventTest = FileEventKindsTest;

TEST_F(DeleteEventTest, IsMadeOfEveryCallThatRemovesAndNeverLooksAtTheDisk) {
  for (const unsigned syscall : {82U, 84U, 87U, 263U, 264U, 316U}) {
    const auto event = Build<DeleteEvent>(syscall, "DELETE");
    EXPECT_EQ(event->GetType(), edr::EventType::Delete) << syscall;
    EXPECT_EQ(event->GetAction(), "Delete");
    EXPECT_EQ(event->GetPath(), file_);
    // The file is still there, and not asked for.
    EXPECT_EQ(event->GetFileSize(), -1);
  }
}

TEST_F(DeleteEventTest, TellsFoldersAndLinksByTheirRecordsAlone) {
  const auto link = Build<DeleteEvent>(87, "DELETE", {}, link_, link_);
  EXPECT_TRUE(link->IsSymlink());
  EXPECT_EQ(link->GetObjectType(), edr::ObjectType::File);
  const auto folder = Build<DeleteEvent>(84, "DELETE", {}, folder_ / "d", folder_.Path());
  EXPECT_FALSE(folder->IsSymlink());
  EXPECT_EQ(folder->GetObjectType(), edr::ObjectType::Directory);
}

TEST_F(DeleteEventTest, IsNotRefreshed) {
  const auto event = Build<DeleteEvent>(87, "DELETE");
  ASSERT_EQ(unlink(file_.c_str()), 0);
  EXPECT_NO_THROW(event->Refresh());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Ignoring stat for delete event"));
}

TEST_F(DeleteEventTest, RefusesOtherCallsAndRecords) {
  EXPECT_EQ(ErrorOf<DeleteEvent>(83, "DELETE"), "Invalid syscall for delete event");
  EXPECT_EQ(ErrorOf<DeleteEvent>(87, "NORMAL"), "Missing delete PATH record for Delete event");
}

using AttributeEventTest = FileEventKindsTest;

TEST_F(AttributeEventTest, ShowsTheObjectBeforeAndAfterTheCall) {
  ASSERT_EQ(chmod(file_.c_str(), 0604), 0);
  AuditRecords records;
  // The record has what the file was before.
  records.Syscall(90).Cwd("/").Path("NORMAL", file_, file_, {{"mode", "0100644"}, {"ouid", "1"}, {"ogid", "2"}});
  const AttributeEvent event(records, nullptr);
  EXPECT_EQ(event.GetType(), edr::EventType::AttributeChange);
  EXPECT_EQ(event.GetAction(), "Change");
  EXPECT_EQ(event.GetFile()->GetPermission(), 644U);
  EXPECT_EQ(event.GetFile()->GetOwnerId(), 1U);
  EXPECT_EQ(event.GetFile()->GetOwnerName(), "daemon");
  EXPECT_EQ(event.GetFile()->GetGroupId(), 2U);
  EXPECT_EQ(event.GetFile()->GetGroupName(), "bin");
  const common::ImageInfo& after = *event.GetNewFile();
  EXPECT_EQ(after.GetPermission(), 604U);
  EXPECT_EQ(after.GetOwnerId(), geteuid());
  EXPECT_EQ(after.GetOwnerName(), common::UserName(geteuid()));
  EXPECT_EQ(after.GetGroupId(), getegid());
  EXPECT_EQ(after.GetGroupName(), common::GroupName(getegid()));
  EXPECT_EQ(after.GetPath(), file_);
  EXPECT_EQ(after.GetInode(), event.GetFile()->GetInode());
  EXPECT_EQ(after.GetDevice(), event.GetFile()->GetDevice());
}

TEST_F(AttributeEventTest, ShowsWhatTheNextLookAtTheDiskFound) {
  ASSERT_EQ(chmod(file_.c_str(), 0604), 0);
  AuditRecords records;
  records.Syscall(90).Cwd("/").Path("NORMAL", file_, file_, {{"mode", "0100644"}});
  AttributeEvent event(records, nullptr);
  EXPECT_EQ(event.GetNewFile()->GetPermission(), 604U);
  ASSERT_EQ(chmod(file_.c_str(), 0600), 0);
  event.Refresh();
  EXPECT_EQ(event.GetNewFile()->GetPermission(), 600U);
  EXPECT_EQ(event.GetNewFile()->GetPath(), file_);
  EXPECT_EQ(event.GetFile()->GetPermission(), 644U);
}

TEST_F(AttributeEventTest, FollowsLinksOrNotAsTheCallDoes) {
  for (const unsigned syscall :
       {90U, 91U, 92U, 93U, 132U, 188U, 190U, 191U, 193U, 194U, 196U, 197U, 199U, 235U, 260U, 261U, 268U, 280U}) {
    EXPECT_EQ(Build<AttributeEvent>(syscall, "NORMAL", {}, link_, file_)->GetPath(), file_) << syscall;
  }
  for (const unsigned syscall : {94U, 189U, 192U, 195U, 198U}) {
    const auto event = Build<AttributeEvent>(syscall, "NORMAL", {}, link_, link_);
    EXPECT_EQ(event->GetPath(), link_) << syscall;
    EXPECT_TRUE(event->IsSymlink());
  }
}

TEST_F(AttributeEventTest, NeedsTheFileOnDisk) {
  AuditRecords records;
  records.Syscall(90).Cwd("/").Path("NORMAL", file_);
  ASSERT_EQ(unlink(file_.c_str()), 0);
  const AttributeEvent event(records, nullptr);
  ASSERT_NE(event.Refusal(), nullptr) << "has an after without a file";
  EXPECT_EQ(*event.Refusal(), "File stat does not exist for Change event with ID 77");
}

TEST_F(AttributeEventTest, RefusesOtherCallsAndRecords) {
  EXPECT_EQ(ErrorOf<AttributeEvent>(1, "NORMAL"), "Invalid syscall for Attribute event: 1");
  EXPECT_EQ(ErrorOf<AttributeEvent>(90, "CREATE"), "Missing normal PATH record for Attribute event");
}

TEST_F(FileEventKindsTest, EveryKindClonesAsItself) {
  const std::unique_ptr<edr::Event> create = Build<CreateEvent>(83, "CREATE")->Clone();
  EXPECT_EQ(create->GetType(), edr::EventType::Create);
  EXPECT_EQ(create->GetFile()->GetPath(), file_);
  const std::unique_ptr<edr::Event> read = Build<ReadWriteEvent>(0, "NORMAL")->Clone();
  EXPECT_EQ(read->GetType(), edr::EventType::Read);
  EXPECT_EQ(read->GetAction(), "Read");
  const std::unique_ptr<edr::Event> removal = Build<DeleteEvent>(87, "DELETE")->Clone();
  EXPECT_EQ(removal->GetType(), edr::EventType::Delete);
  EXPECT_NO_THROW(removal->Refresh());
  const std::unique_ptr<edr::Event> change = Build<AttributeEvent>(90, "NORMAL")->Clone();
  EXPECT_EQ(change->GetType(), edr::EventType::AttributeChange);
  EXPECT_EQ(change->GetNewFile()->GetPath(), file_);
}

TEST_F(FileEventKindsTest, NoRecordIsTakenAfterwards) {
  const std::unique_ptr<edr::Event> copy = Build<ReadWriteEvent>(0, "NORMAL")->Clone();
  EXPECT_EQ(TextOf([&] { copy->Validate(); }), "Missing/incorrect PATH records in file event");
  EXPECT_EQ(TextOf([&] { ParsePathRecord(*copy); }), "Too many PATH records in Read event");
  const auto event = Build<DeleteEvent>(87, "DELETE");
  EXPECT_EQ(TextOf([&] { event->Validate(); }), "Missing/incorrect PATH records in file event");
  EXPECT_EQ(TextOf([&] { ParsePathRecord(*event); }), "Too many PATH records in Delete event");
}

// --- another path than the one that was used

TEST_F(FileEventKindsTest, MovesToThePathThatItIsGiven) {
  const auto event = Build<ReadWriteEvent>(257, "NORMAL", {{"a2", "1"}});
  event->UpdateFilePath("/elsewhere/f");
  EXPECT_EQ(event->GetFile()->GetPath(), "/elsewhere/f");
}

TEST_F(FileEventKindsTest, MovesBothPicturesOfAnObjectWhoseAttributesChanged) {
  const auto event = Build<AttributeEvent>(90, "NORMAL");
  event->UpdateFilePath("/elsewhere/f");
  EXPECT_EQ(event->GetFile()->GetPath(), "/elsewhere/f");
  EXPECT_EQ(event->GetNewFile()->GetPath(), "/elsewhere/f");
}

}  // namespace
}  // namespace zagent::audit::internal
