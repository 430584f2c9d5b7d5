#include "src/ioc/protobuf/Generator.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "common/src/util/DeviceText.h"
#include "common/src/util/Digest.h"
#include "src/edr/DigestPace.h"
#include "src/edr/process/NameService.h"
#include "src/health/ComponentHealth.h"
#include "src/ioc/protobuf/DataFormatter.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/FileEvent.h"
#include "src/ioc/protobuf/FileLooks.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "src/ioc/protobuf/ProcessEvent.h"
#include "src/ioc/protobuf/ReportedObjects.h"
#include "src/ioc/protobuf/UniqueId.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/MemoryStorage.h"
#include "tests/fakes/TestData.h"
#include "tests/src/ioc/process/TreeFixture.h"
#include "tests/src/ioc/protobuf/Schema.h"
#include "tests/src/ioc/protobuf/SnapshotFixture.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::WhatOf;
using Poco::Message;

constexpr std::uint8_t kDirectory = 0;
constexpr std::uint8_t kFile = 1;

common::ImageInfo Image(const std::string& path, std::uint32_t permission = 755) {
  return {"fd:00", permission, 42, path, 0, "root", "root", 0, ""};
}

// A shell, 10, has started cat, 20, whose events are reported.
class GeneratorTest : public TreeFixture, protected SnapshotFixture {
 protected:
  GeneratorTest() {
    Enter(10, 1, "/bin/sh", {"sh", "-c", "cat"});
    Enter(20, 10, "/bin/cat", {"cat", "/etc/passwd"});
    Remember("Directory", "/srv");
  }

  void Enter(std::int32_t pid, std::int32_t ppid, const std::string& image, std::vector<std::string> arguments) {
    auto event = Start(pid, ppid, image);
    event->image = Image(image);
    event->arguments = std::move(arguments);
    event->cwd = "/home/alice";
    tree_->AddEvent(std::move(event));
  }
  void MakeGenerator() {
    generator_ = std::make_unique<Generator>(*tree_, spool_, *snapshot_, config_, health_, clock_, digests_);
  }

  FakeEvent Event(EventType type, const std::string& action, ObjectType object) {
    FakeEvent event;
    event.type = type;
    event.action = action;
    event.object_type = object;
    event.id = 77;
    event.pid = 20;
    event.ppid = 10;
    event.image = common::ImageInfo("/bin/cat");
    return event;
  }
  FakeEvent OfFile(EventType type, const std::string& action, const std::string& path = "/srv/report.tar.gz") {
    FakeEvent event = Event(type, action, ObjectType::File);
    event.file = Image(path, 644);
    event.size = 1234;
    event.modification_time = 1'700'000'001 * kSecond;
    event.access_time = 1'700'000'002 * kSecond;
    event.change_time = 1'700'000'003 * kSecond;
    event.file_type_desc = "Python script, ASCII text executable";
    return event;
  }
  FakeEvent OfDirectory(EventType type, const std::string& action, const std::string& path = "/srv/new") {
    FakeEvent event = OfFile(type, action, path);
    event.object_type = ObjectType::Directory;
    event.file_type = edr::FileType::Directory;
    return event;
  }
  FakeEvent Connection(EventType type, const std::string& action) {
    FakeEvent event = Event(type, action, ObjectType::Network);
    event.network_address = "192.0.2.7";
    event.network_port = 443;
    return event;
  }
  FakeEvent OfProcess(EventType type, const std::string& action) {
    FakeEvent event = Event(type, action, ObjectType::Process);
    event.image = Image("/bin/cat");
    event.arguments = {"cat", "/etc/passwd"};
    event.cwd = "/home/alice";
    event.timestamp = kLater;
    return event;
  }

  void Process(const FakeEvent& event) { generator_->Process(event, false); }
  // The error text of an event that is not reported.
  std::string Refusal(const FakeEvent& event) {
    return WhatOf<Exception>([&] { Process(event); });
  }
  // The only message that comes of the event.
  template <typename Element>
  Element Only(const FakeEvent& event) {
    spool_.written.clear();
    Process(event);
    EXPECT_EQ(spool_.written.size(), 1U);
    Element element;
    if (!spool_.written.empty()) {
      EXPECT_TRUE(element.ParseFromString(spool_.written.front().substr(1)));
    }
    return element;
  }
  wire::FileEvent File(const FakeEvent& event) { return Only<wire::FileEvent>(event); }
  wire::ProcessEvent ProcessMessage(const FakeEvent& event) { return Only<wire::ProcessEvent>(event); }

  void Remember(const std::string& table, const std::string& path) {
    const std::int64_t time = 1;
    const std::string id = UniquePathId(path);
    snapshot_->Write(table, id,
                     table == "File" ? snapshot_->MakeRow(id, std::string(), time, time, time, time, time,
                                                          std::string(), std::string(), std::string())
                                     : snapshot_->MakeRow(id, path, time, time, time, time));
  }
  // In the snapshot, once all that waits has been written.
  bool IsKnown(const std::string& table, const std::string& path) {
    MakeGenerator();
    return !snapshot_->Query("SELECT * from " + table + " WHERE RowID = '" + UniquePathId(path) + "'").Next().empty();
  }

  fakes::MemoryStorage spool_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Ioc};
  const std::shared_ptr<common::util::DigestCache> digests_ = std::make_shared<common::util::DigestCache>(clock_);
  std::unique_ptr<Generator> generator_ =
      std::make_unique<Generator>(*tree_, spool_, *snapshot_, config_, health_, clock_, digests_);
};

// Golden messages

class GoldenMessagesTest : public GeneratorTest {
 protected:
  // The text of the only message.
  std::string TextOf(const std::string& message, const FakeEvent& event) {
    spool_.written.clear();
    Process(event);
    if (spool_.written.size() != 1) return std::to_string(spool_.written.size()) + " messages";
    return Schema().ItemText(message, spool_.written.front());
  }
  static std::string GoldenText(const std::string& name) {
    std::ifstream file(fakes::TestData("ioc/" + name + ".txt"));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void Check(const std::string& name, const std::string& message, const FakeEvent& event) {
    EXPECT_EQ(TextOf(message, event), GoldenText(name)) << name;
  }
};

TEST_F(GoldenMessagesTest, FilesAreToldAsInTheirGoldenTexts) {
  FakeEvent create = OfFile(EventType::Create, "Create");
  create.content_hash.assign(32, 0xab);
  Check("file-create", "FileEvent", create);
  Check("file-read", "FileEvent", OfFile(EventType::Read, "Read"));
  Check("file-write", "FileEvent", OfFile(EventType::Write, "Write"));
  FakeEvent change = OfFile(EventType::AttributeChange, "Change");
  change.new_file = common::ImageInfo("fd:00", 4755, 42, "/srv/report.tar.gz", 100, "users", "alice", 1000, "");
  Check("file-change", "FileEvent", change);
  FakeEvent rename = OfFile(EventType::Rename, "Rename");
  rename.new_file = Image("/srv/.hidden", 644);
  Check("file-rename", "FileEvent", rename);
  Check("file-delete", "FileEvent", OfFile(EventType::Delete, "Delete", "/srv/.hidden"));
}

TEST_F(GoldenMessagesTest, DirectoriesAreToldAsInTheirGoldenTexts) {
  Check("directory-create", "DirectoryEvent", OfDirectory(EventType::Create, "Create"));
  Check("directory-delete", "DirectoryEvent", OfDirectory(EventType::Delete, "Delete"));
  FakeEvent change = OfDirectory(EventType::AttributeChange, "Change");
  change.new_file = common::ImageInfo("fd:00", 2770, 42, "/srv/new", 100, "users", "alice", 1000, "");
  Check("directory-change", "DirectoryEvent", change);
  FakeEvent rename = OfDirectory(EventType::Rename, "Rename");
  rename.new_file = Image("/srv/by-another-name");
  Check("directory-rename", "DirectoryEvent", rename);
}

// It is that of this machine, so the golden text has names in the places of what is known of it.
TEST_F(GoldenMessagesTest, ADirectoryThatIsToldBecauseOfAFileHasNoAction) {
  Process(OfFile(EventType::Create, "Create", folder_ / "new.txt"));
  ASSERT_EQ(spool_.written.size(), 2U);
  struct stat found {};
  ASSERT_EQ(stat(folder_.Path().c_str(), &found), 0);
  wire::DirectoryEvent directory;
  ASSERT_TRUE(directory.ParseFromString(spool_.written[0].substr(1)));
  const std::string settings = R"({\"Uid\":)" + std::to_string(found.st_uid) + R"(,\"Gid\":)" +
                               std::to_string(found.st_gid) + R"(,\"Permission\":700,\"OwnerName\":\")" +
                               common::UserName(found.st_uid) + R"(\",\"GroupName\":\")" +
                               common::GroupName(found.st_gid) + R"(\"})";
  const std::pair<const char*, std::string> known[] = {{"ID OF FOLDER", UniquePathId(folder_.Path())},
                                                       {"FOLDER", folder_.Path()},
                                                       {"SETTINGS", settings},
                                                       {"CREATION", std::to_string(directory.creationtime())},
                                                       {"WRITE", std::to_string(found.st_mtime * kSecond)},
                                                       {"ACCESS", std::to_string(found.st_atime * kSecond)},
                                                       {"CHANGE", std::to_string(found.st_ctime * kSecond)}};
  std::string golden = GoldenText("directory-of-a-file");
  for (const auto& [name, value] : known) {
    ASSERT_NE(golden.find(name), std::string::npos) << name;
    golden.replace(golden.find(name), std::strlen(name), value);
  }
  EXPECT_EQ(Schema().ItemText("DirectoryEvent", spool_.written[0]), golden);
}

TEST_F(GoldenMessagesTest, ConnectionsAreToldAsInTheirGoldenTexts) {
  Check("network-connect", "NetworkEvent", Connection(EventType::Connect, "Connect"));
  Check("network-accept", "NetworkEvent", Connection(EventType::Accept, "Accept"));
  Check("network-bind", "NetworkEvent", Connection(EventType::Bind, "Bind"));
}

TEST_F(GoldenMessagesTest, ProcessesAreToldAsInTheirGoldenTexts) {
  FakeEvent start = OfProcess(EventType::ProcessStart, "Execve");
  start.elevated = true;
  Check("process-start", "ProcessEvent", start);
  Check("process-exit", "ProcessEvent", OfProcess(EventType::ProcessExit, "Exit"));
  Check("process-abend", "ProcessEvent", OfProcess(EventType::AbnormalEnd, "Abort"));
}

// All objects

TEST_F(GeneratorTest, EachTypeOfEventHasThePlatformsWord) {
  const std::pair<EventType, wire::EventAction> files[] = {{EventType::Create, wire::CREATE},
                                                           {EventType::Read, wire::READ},
                                                           {EventType::Write, wire::WRITE},
                                                           {static_cast<EventType>(6), wire::CLOSED},
                                                           {static_cast<EventType>(14), wire::LOAD}};
  for (const auto& [type, action] : files) EXPECT_EQ(File(OfFile(type, "x")).eventaction(), action);
  for (const unsigned none : {0U, 10U, 15U, 17U}) {
    EXPECT_EQ(Refusal(OfFile(static_cast<EventType>(none), "x")), "No action for event type " + std::to_string(none));
  }
}

TEST_F(GeneratorTest, AnObjectOfNoKindIsRefused) {
  EXPECT_EQ(Refusal(Event(EventType::Write, "Write", static_cast<ObjectType>(5))),
            "Cannot generate protobuf for invalid event type: 5");
  EXPECT_TRUE(spool_.written.empty());
}

TEST_F(GeneratorTest, AnEventIsToldOfBeforeItsMessageIsMade) {
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "[IOC]: Generating protobuf for Write (/srv/report.tar.gz) [77, 1700000000000000000]"));
  Process(OfProcess(EventType::ProcessExit, "Exit"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Generating protobuf for Exit (/bin/cat) [77, "));
  Process(Connection(EventType::Connect, "Connect"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Generating protobuf for Connect (/bin/cat) [77, "));
}

TEST_F(GeneratorTest, TheActorIsReportedOnceTheSpoolHasItsMessage) {
  EXPECT_FALSE(tree_->Get(20)->HasTag(process_tag::kReported));
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kReported));
  EXPECT_FALSE(tree_->Get(10)->HasTag(process_tag::kReported));
}

TEST_F(GeneratorTest, AnActorWhoseMessageTheSpoolRefusesIsNotReported) {
  spool_.max_item_size = 10;
  EXPECT_THROW(Process(OfFile(EventType::Write, "Write")), common::StorageException);
  EXPECT_FALSE(tree_->Get(20)->HasTag(process_tag::kReported));
  EXPECT_FALSE(IsKnown("File", "/srv/report.tar.gz"));
}

TEST_F(GeneratorTest, WhatTheSpoolHasRefusedIsToldAgain) {
  const FakeEvent create = OfFile(EventType::Create, "Create", folder_ / "f");
  spool_.write_code = common::StorageCode::Unknown;
  Process(create);
  EXPECT_TRUE(spool_.written.empty());
  EXPECT_EQ(reporter_.Refused(), 2U);
  spool_.write_code = common::StorageCode::Success;
  EXPECT_EQ(Refusal(OfFile(EventType::Delete, "Delete", folder_ / "f")),
            "Dropping delete event for unreported file: " + folder_ / "f");
  Process(create);
  ASSERT_EQ(spool_.written.size(), 2U);
  EXPECT_EQ(spool_.written[0].front(), kDirectory);
  EXPECT_TRUE(IsKnown("File", folder_ / "f"));
  EXPECT_TRUE(IsKnown("Directory", folder_.Path()));
}

TEST_F(GeneratorTest, AnEndThatTheSpoolHasRefusedIsToldAtTheNextOccasion) {
  Process(OfFile(EventType::Create, "Create"));
  spool_.write_code = common::StorageCode::Unknown;
  Process(OfFile(EventType::Delete, "Delete"));
  spool_.write_code = common::StorageCode::Success;
  EXPECT_EQ(File(OfFile(EventType::Delete, "Delete")).eventaction(), wire::DELETE);
}

TEST_F(GeneratorTest, WhatWasToldIsForgottenWithTheSnapshot) {
  Process(OfDirectory(EventType::Create, "Create"));
  generator_->Enable(false);
  snapshot_->Clear();
  EXPECT_EQ(Refusal(OfDirectory(EventType::Delete, "Delete")),
            "Dropping delete event for unreported directory: /srv/new");
}

TEST_F(GeneratorTest, WhoeverIsDisabledTellsNothingUntilHeIsEnabledAgain) {
  generator_->Enable(false);
  Process(OfFile(EventType::Create, "Create"));
  EXPECT_TRUE(spool_.written.empty());
  EXPECT_FALSE(tree_->Get(20)->HasTag(process_tag::kReported));
  EXPECT_FALSE(IsKnown("File", "/srv/new"));
  generator_->Enable(true);
  Process(OfFile(EventType::Create, "Create"));
  EXPECT_FALSE(spool_.written.empty());
}

TEST_F(GeneratorTest, AnExcludedProcessIsReportedLikeAnyOther) {
  tree_->Get(20)->AddTag(process_tag::kExcluded);
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_EQ(spool_.written.size(), 1U);
  EXPECT_TRUE(tree_->Get(20)->HasTag(process_tag::kExcluded));
}

TEST_F(GeneratorTest, WhatTheManifestsSayOfMetadataChangesNothing) {
  generator_->Process(OfFile(EventType::Write, "Write"), true);
  generator_->Process(OfFile(EventType::Write, "Write"), false);
  ASSERT_EQ(spool_.written.size(), 2U);
  EXPECT_EQ(spool_.written[0], spool_.written[1]);
}

TEST_F(GeneratorTest, ASpoolThatRefusesEverythingIsToldOnceAMinute) {
  spool_.write_code = common::StorageCode::IOError;
  for (int i = 0; i < 12; ++i) Process(OfFile(EventType::Write, "Write"));
  EXPECT_EQ(log_.Count("Failed to write protobuf"), 1);
  EXPECT_EQ(reporter_.Refused(), 12U);
  clock_.Advance(common::util::LinePace::kInterval);
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_TRUE(log_.Has("Failed to write protobuf to spool storage. Error code 3 (12 times since the last line)"));
}

TEST_F(GeneratorTest, TheSpoolsAnswerIsTold) {
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Protobuf written to spool storage successfully"));
  spool_.write_code = common::StorageCode::IOError;
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to write protobuf to spool storage. Error code 3"));
  EXPECT_EQ(reporter_.Refused(), 1U);
  spool_.only_flush_fails = true;
  clock_.Advance(common::util::LinePace::kInterval);
  Process(OfFile(EventType::Write, "Write"));
  EXPECT_EQ(log_.Count("Failed to write protobuf to spool storage. Error code 3"), 2);
  EXPECT_EQ(reporter_.Refused(), 1U) << "the message was taken";
}

TEST_F(GeneratorTest, NamesThatAreNoTextAreRepairedAndToldApartByTheirIds) {
  const wire::FileEvent one = File(OfFile(EventType::Write, "Write", "/srv/a\xff.p\xfe"));
  const wire::FileEvent other = File(OfFile(EventType::Write, "Write", "/srv/a\xfd.p\xfe"));
  EXPECT_EQ(one.fullpath(), "/srv/a\xEF\xBF\xBD.p\xEF\xBF\xBD");
  EXPECT_EQ(one.filename(), "a\xEF\xBF\xBD.p\xEF\xBF\xBD");
  EXPECT_EQ(one.extension(), "p\xEF\xBF\xBD");
  EXPECT_EQ(other.fullpath(), one.fullpath());
  EXPECT_NE(other.uniqueid(), one.uniqueid());
}

// A batch with one text that is not UTF-8 would be refused whole: whoever chooses a name could hide what else he did.
TEST_F(GeneratorTest, NoNameMakesABatchThatCannotBeRead) {
  const std::string bad = "\xff\xfe\x80";
  Enter(30, 20, "/tmp/" + bad, {bad, bad});
  FakeEvent start = OfProcess(EventType::ProcessStart, "Execve");
  start.pid = 30;
  start.image = common::ImageInfo("fd:00", 755, 1, "/tmp/" + bad, 0, bad, bad, 0, "");
  start.arguments = {bad};
  start.cwd = "/" + bad;
  FakeEvent write = OfFile(EventType::Write, "Write", "/" + bad + "/" + bad + "." + bad);
  write.pid = 30;
  write.image = start.image;
  write.file->SetNames(bad, bad);
  FakeEvent rename = write;
  rename.type = EventType::Rename;
  rename.new_file = rename.file;
  FakeEvent directory = write;
  directory.object_type = ObjectType::Directory;
  FakeEvent connect = Connection(EventType::Connect, "Connect");
  connect.pid = 30;
  connect.network_address = bad;
  DataFormatter formatter(config_, 0, *snapshot_, proc_.Root());
  for (const FakeEvent* event : {&start, &write, &rename, &directory, &connect}) Process(*event);
  ASSERT_EQ(spool_.written.size(), 5U);
  for (const std::string& item : spool_.written) EXPECT_NO_THROW(formatter.Append({item.begin(), item.end()}));
  EXPECT_NO_THROW(Schema().BatchText(formatter.Finish()));
}

// Actors

TEST_F(GeneratorTest, AnActorThatTheTreeDoesNotHaveIsNotToldOf) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.pid = 99;
  EXPECT_EQ(WhatOf<common::GenericProcessTreeException>([&] { Process(event); }),
            "ProcessInfo for pid 99 does not exist");
  EXPECT_TRUE(spool_.written.empty());
}

TEST_F(GeneratorTest, TheActorsProgramIsTheOneThatActedNotOneThatItStartedSince) {
  Enter(20, 10, "/bin/true", {"true"});
  const wire::Actor actor = File(OfFile(EventType::Write, "Write")).actor();
  EXPECT_EQ(actor.imagepath(), "/bin/cat");
  EXPECT_EQ(actor.uniqueimageid(), UniquePathId("/bin/cat"));
  EXPECT_EQ(actor.securitysettings(), "") << "nobody knows who owned it";
  EXPECT_EQ(actor.uniqueprocessid(), UniqueProcessId(20, kLater, "/bin/true"));
}

TEST_F(GeneratorTest, AllEventsOfAProcessHaveOneActorAndThoseOfItsSuccessorAnother) {
  const auto actor_of = [this](const std::string& path) {
    return File(OfFile(EventType::Write, "Write", "/srv/" + path)).actor().SerializeAsString();
  };
  const std::string first = actor_of("a");
  EXPECT_EQ(actor_of("b"), first);
  // The same program in the same second, for another user.
  auto start = Start(20, 10, "/bin/cat");
  start->image = Image("/bin/cat");
  start->uid = 4'000'000'001U;
  tree_->AddEvent(std::move(start));
  for (int round = 0; round < 2; ++round) {
    const wire::Actor second = File(OfFile(EventType::Write, "Write")).actor();
    EXPECT_EQ(second.userid(), "4000000001");
    EXPECT_EQ(second.imagepath(), "/bin/cat");
  }
  EXPECT_EQ(log_.Count("User name not found for uid 4000000001"), 4) << "who has no name is asked for each time";
}

TEST_F(GeneratorTest, AMessageHasNothingOfTheOneBeforeIt) {
  FakeEvent rename = OfFile(EventType::Rename, "Rename", "/srv/old.txt");
  rename.new_file = Image("/srv/new.txt", 644);
  EXPECT_EQ(File(rename).oldpath(), "/srv/old.txt");
  const wire::FileEvent gone = File(OfFile(EventType::Delete, "Delete", "/srv/new.txt"));
  EXPECT_EQ(gone.oldpath(), "");
  EXPECT_EQ(gone.type(), "");
  EXPECT_EQ(gone.size(), 0);
  EXPECT_EQ(gone.lastwritetime(), 0);
  EXPECT_EQ(gone.actor().imagepath(), "/bin/cat");
}

TEST_F(GeneratorTest, AnOwnersNameIsAJsonTextWhateverItHolds) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.file = common::ImageInfo("fd:00", 640, 42, "/srv/report.tar.gz", 7, "a\"b\\c\n", "caf\xc3\xa9\xff", 8, "");
  EXPECT_EQ(File(event).securitysettings(),
            "{\"Uid\":8,\"Gid\":7,\"Permission\":640,\"OwnerName\":\"caf\xc3\xa9\xef\xbf\xbd\","
            "\"GroupName\":\"a\\\"b\\\\c\\n\"}");
}

TEST_F(GeneratorTest, AnEventWithoutAProgramHasThatOfItsProcess) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.image.reset();
  EXPECT_EQ(File(event).actor().imagepath(), "/bin/cat");
}

// Files

TEST_F(GeneratorTest, TheDirectoryOfAFileIsToldFirstAndOnce) {
  const std::string path = folder_ / "d/new.txt";
  mkdir((folder_ / "d").c_str(), 0750);
  Process(OfFile(EventType::Create, "Create", path));
  ASSERT_EQ(spool_.written.size(), 2U);
  EXPECT_EQ(spool_.written[0].front(), kDirectory);
  EXPECT_EQ(spool_.written[1].front(), kFile);
  wire::DirectoryEvent directory;
  ASSERT_TRUE(directory.ParseFromString(spool_.written[0].substr(1)));
  wire::FileEvent file;
  ASSERT_TRUE(file.ParseFromString(spool_.written[1].substr(1)));
  struct stat found {};
  ASSERT_EQ(stat((folder_ / "d").c_str(), &found), 0);
  EXPECT_EQ(directory.eventaction(), wire::NONE);
  EXPECT_EQ(directory.timestamp(), file.timestamp());
  EXPECT_EQ(directory.path(), folder_ / "d");
  EXPECT_EQ(directory.uniqueid(), file.parentdirectoryid());
  EXPECT_EQ(directory.actor().SerializeAsString(), file.actor().SerializeAsString());
  EXPECT_EQ(directory.securitysettings(), R"({"Uid":)" + std::to_string(found.st_uid) + R"(,"Gid":)" +
                                              std::to_string(found.st_gid) + R"(,"Permission":750,"OwnerName":")" +
                                              common::UserName(found.st_uid) + R"(","GroupName":")" +
                                              common::GroupName(found.st_gid) + R"("})");
  EXPECT_EQ(directory.lastwritetime(), found.st_mtime * kSecond);
  EXPECT_EQ(directory.lastaccesstime(), found.st_atime * kSecond);
  EXPECT_EQ(directory.lastchangetime(), found.st_ctime * kSecond);
  EXPECT_GT(directory.creationtime(), 0);
  EXPECT_LE(directory.creationtime(), directory.lastchangetime());

  spool_.written.clear();
  Process(OfFile(EventType::Create, "Create", folder_ / "d/other.txt"));
  EXPECT_EQ(spool_.written.size(), 1U);
  EXPECT_TRUE(IsKnown("Directory", folder_ / "d"));
}

TEST_F(GeneratorTest, ADirectoryThatThePlatformKnowsFromBeforeIsNotToldAgain) {
  Remember("Directory", folder_.Path());
  Process(OfFile(EventType::Create, "Create", folder_ / "new.txt"));
  EXPECT_EQ(spool_.written.size(), 1U);
}

TEST_F(GeneratorTest, AFileWhoseDirectoryIsGoneIsToldWithoutIt) {
  Process(OfFile(EventType::Create, "Create", "/nowhere/at/all"));
  ASSERT_EQ(spool_.written.size(), 1U);
  EXPECT_EQ(spool_.written[0].front(), kFile);
  EXPECT_TRUE(log_.Has("[IOC]: Failed to stat parent directory for file /nowhere/at/all"));
  EXPECT_TRUE(log_.Has(
      "[IOC]: Skip adding directory event: /nowhere/at in protobuf for non-existing directory id in snapshot"));
}

TEST_F(GeneratorTest, TheDirectoryOfAFileInTheRootIsTheRoot) {
  Remember("Directory", "/");
  EXPECT_EQ(File(OfFile(EventType::Write, "Write", "/swapfile")).parentdirectoryid(), UniquePathId("/"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: File Parent Directory id: " + UniquePathId("/")));
}

TEST_F(GeneratorTest, AFileWithoutADirectoryIsRefused) {
  for (const char* path : {"inode:12", "relative/name", "/", "/srv/"}) {
    EXPECT_EQ(Refusal(OfFile(EventType::Write, "Write", path)),
              std::string("Failed to generate directory ID for: ") + path);
  }
}

TEST_F(GeneratorTest, AFileWithoutAPathIsRefused) {
  EXPECT_EQ(Refusal(OfFile(EventType::Write, "Write", "")), "Failed to read file information: ");
  FakeEvent event = OfFile(EventType::Rename, "Rename");
  event.new_file.reset();
  EXPECT_EQ(Refusal(event), "Failed to read file information: ");
}

TEST_F(GeneratorTest, TheEndOfAFileThatThePlatformDoesNotKnowIsNotTold) {
  EXPECT_EQ(Refusal(OfFile(EventType::Delete, "Delete")),
            "Dropping delete event for unreported file: /srv/report.tar.gz");
  EXPECT_TRUE(spool_.written.empty());
}

TEST_F(GeneratorTest, TheEndOfAFileThatWasToldIsToldOnce) {
  Process(OfFile(EventType::Create, "Create"));
  const wire::FileEvent message = File(OfFile(EventType::Delete, "Delete"));
  EXPECT_EQ(message.eventaction(), wire::DELETE);
  EXPECT_EQ(message.lastwritetime(), 0) << "nobody knows";
  EXPECT_EQ(message.size(), 0);
  EXPECT_EQ(Refusal(OfFile(EventType::Delete, "Delete")),
            "Dropping delete event for unreported file: /srv/report.tar.gz");
  EXPECT_FALSE(IsKnown("File", "/srv/report.tar.gz"));
}

TEST_F(GeneratorTest, TheEndOfAFileThatAnEarlierRunToldOfIsTold) {
  Remember("File", "/srv/report.tar.gz");
  EXPECT_EQ(File(OfFile(EventType::Delete, "Delete")).eventaction(), wire::DELETE);
}

TEST_F(GeneratorTest, AFileThatWasGoneBeforeItCouldBeReadIsNoError) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.size = -1;
  EXPECT_NO_THROW(Process(event));
  EXPECT_TRUE(spool_.written.empty());
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Dropping Write for short-lived file /srv/report.tar.gz"));
  EXPECT_FALSE(tree_->Get(20)->HasTag(process_tag::kReported));
  EXPECT_FALSE(IsKnown("File", "/srv/report.tar.gz"));
}

TEST_F(GeneratorTest, ARenamedFileIsKnownUnderItsNewNameAlone) {
  Process(OfFile(EventType::Create, "Create", "/srv/old"));
  FakeEvent rename = OfFile(EventType::Rename, "Rename", "/srv/old");
  rename.new_file = Image("/srv/new", 600);
  const wire::FileEvent message = File(rename);
  EXPECT_EQ(message.oldpath(), "/srv/old");
  EXPECT_EQ(message.fullpath(), "/srv/new");
  EXPECT_EQ(message.uniqueid(), UniquePathId("/srv/new"));
  EXPECT_EQ(Refusal(OfFile(EventType::Delete, "Delete", "/srv/old")),
            "Dropping delete event for unreported file: /srv/old");
  EXPECT_TRUE(IsKnown("File", "/srv/new"));
  EXPECT_FALSE(IsKnown("File", "/srv/old"));
}

TEST_F(GeneratorTest, OnlyDigestsOfTheRightLengthAreTold) {
  const std::pair<const char*, std::size_t> cases[] = {{"sha256", 32}, {"sha1", 20}, {"md5", 16}};
  for (const auto& [name, size] : cases) {
    FakeEvent event = OfFile(EventType::Write, "Write");
    event.content_hash.assign(size, 0x0f);
    const std::string hex = common::util::ToHex(std::string(size, '\x0f'));
    const wire::FileEvent message = File(event);
    EXPECT_EQ(message.sha256(), size == 32 ? hex : "");
    EXPECT_EQ(message.sha1(), size == 20 ? hex : "");
    EXPECT_EQ(message.md5(), size == 16 ? hex : "");
    EXPECT_TRUE(
        log_.Has(Message::PRIO_DEBUG, std::string("[IOC]: ") + name + ": " + hex + " File: /srv/report.tar.gz"));
  }
  EXPECT_EQ(log_.Count("[IOC]: Ignoring content hash for event with ID 77"), 6);
}

TEST_F(GeneratorTest, OnlyARegularFileHasTypeAndDigests) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.content_hash.assign(32, 1);
  event.file_type = edr::FileType::SymbolicLink;
  const wire::FileEvent message = File(event);
  EXPECT_EQ(message.type(), "");
  EXPECT_EQ(message.sha256(), "");
}

TEST_F(GeneratorTest, ALargeFileThatIsWrittenAllTheTimeIsToldWithoutDigestsInBetween) {
  const std::string path = folder_.Write("large", "");
  std::filesystem::resize_file(path, edr::DigestPace::kMaxFreeSize + 1);
  Remember("Directory", folder_.Path());
  FakeEvent event = OfFile(EventType::Write, "Write", path);
  event.file->SetPath(path);
  event.content_hash.assign(32, 1);
  EXPECT_FALSE(File(event).sha256().empty());
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(File(event).sha256().empty());
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING,
                       "[IOC]: DigestPace: 1 events without a digest: " + path + " is large and written all the time"));
  clock_.Advance(edr::DigestPace::kInterval);
  EXPECT_FALSE(File(event).sha256().empty());
}

TEST_F(GeneratorTest, ALargeFileWhoseDigestsAreKnownIsToldWithThem) {
  const std::string path = folder_.Write("large", "");
  std::filesystem::resize_file(path, edr::DigestPace::kMaxFreeSize + 1);
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  digests_->Keep(found, {.md5 = {}, .sha1 = {}, .sha256 = std::vector<unsigned char>(32, 1)});
  FakeEvent event = OfFile(EventType::Write, "Write", path);
  event.content_hash.assign(32, 1);
  Remember("Directory", folder_.Path());
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(File(event).sha256().empty());
}

TEST_F(GeneratorTest, TheParentOfAProcessIsToldAsWhatItRunsByNow) {
  const FakeEvent start = OfProcess(EventType::ProcessStart, "Execve");
  for (int time = 0; time < 2; ++time) EXPECT_EQ(ProcessMessage(start).actor().imagepath(), "/bin/sh");
  Enter(10, 1, "/bin/bash", {"bash"});
  EXPECT_EQ(ProcessMessage(start).actor().imagepath(), "/bin/bash");
  EXPECT_EQ(ProcessMessage(start).actor().processid(), 10);
}

TEST_F(GeneratorTest, NothingOfAProcessIsToldOfTheNext) {
  FakeEvent other = OfProcess(EventType::ProcessStart, "Execve");
  const std::string alone = ProcessMessage(other).SerializeAsString();
  FakeEvent end = OfProcess(EventType::ProcessExit, "Exit");
  EXPECT_EQ(ProcessMessage(end).status(), "Stop");
  EXPECT_EQ(ProcessMessage(other).SerializeAsString(), alone);
  other.ppid = 999;  // has ended, and nobody knows it
  EXPECT_FALSE(ProcessMessage(other).has_actor());
}

// A file on disk, of which the cache of digests knows another content than its events tell.
class GeneratorOfKnownFilesTest : public GeneratorTest {
 protected:
  GeneratorOfKnownFilesTest() { Remember("Directory", folder_.Path()); }

  FakeEvent OfFileOnDisk(const std::string& name) {
    const std::string path = folder_ / name;
    FakeEvent event = OfFile(EventType::Write, "Write", path);
    event.file = common::ImageInfo(path, StateOf(name));
    event.content_hash.assign(32, 2);
    return event;
  }
  struct stat StateOf(const std::string& name) {
    struct stat found {};
    EXPECT_EQ(stat((folder_ / name).c_str(), &found), 0);
    return found;
  }
  static common::util::FileDigests KnownDigests() {
    const auto bytes = [](std::size_t size) { return std::vector<unsigned char>(size, 1); };
    return {.md5 = bytes(16), .sha1 = bytes(20), .sha256 = bytes(32)};
  }
  void KeepContentOf(const std::string& name) {
    digests_->KeepType(StateOf(name), "Perl script text executable");
    digests_->Keep(StateOf(name), KnownDigests());
  }
  // By which of the two the file is told, its type and digests alike.
  std::string ToldBy(const FakeEvent& event) {
    const wire::FileEvent message = File(event);
    const auto hex = [](std::size_t size, char byte) { return common::util::ToHex(std::string(size, byte)); };
    const bool by_cache = message.sha256() == hex(32, 1) && message.sha1() == hex(20, 1) && message.md5() == hex(16, 1);
    if (by_cache && message.type() == "PERL") return "cache";
    const bool by_event = message.sha256() == hex(32, 2) && message.sha1().empty() && message.md5().empty();
    return by_event ? "event, " + message.type() : "both";
  }
};

TEST_F(GeneratorOfKnownFilesTest, AFileInAStateThatIsKnownIsToldByTheLookAtIt) {
  folder_.Write("script", "x");
  const FakeEvent event = OfFileOnDisk("script");
  EXPECT_EQ(ToldBy(event), "event, Python");
  digests_->KeepType(StateOf("script"), "Perl script text executable");
  EXPECT_EQ(ToldBy(event), "event, Python") << "no digest is known";
  KeepContentOf("script");
  EXPECT_EQ(ToldBy(event), "cache");
  folder_.Write("script", "y, and more of it");
  generator_->BeginTurn();
  EXPECT_EQ(ToldBy(event), "event, Python") << "the file has been written to";
}

TEST_F(GeneratorOfKnownFilesTest, AFileOfWhichOneDigestIsMissingIsNotKnown) {
  using common::util::FileDigests;
  for (const auto missing : {&FileDigests::md5, &FileDigests::sha1, &FileDigests::sha256}) {
    const std::string name = std::to_string(folder_.Read("script").size());
    folder_.Write("script", folder_.Read("script") + "x");
    FileDigests digests = KnownDigests();
    (digests.*missing).clear();
    digests_->KeepType(StateOf("script"), "Perl script text executable");
    digests_->Keep(StateOf("script"), digests);
    EXPECT_EQ(ToldBy(OfFileOnDisk("script")), "event, Python") << name;
  }
}

TEST_F(GeneratorOfKnownFilesTest, AnotherFileIsNotToldByWhatIsKnown) {
  folder_.Write("script", "x");
  KeepContentOf("script");
  FakeEvent event = OfFileOnDisk("script");
  const struct stat found = StateOf("script");
  const std::string path = folder_ / "script";
  const auto be = [&](const std::string& device, std::uint64_t inode) {
    event.file = common::ImageInfo(device, 644, inode, path, 0, "root", "root", 0, "");
    return ToldBy(event);
  };
  EXPECT_EQ(be(common::util::DeviceText(found.st_dev), found.st_ino), "cache");
  for (const bool is_seen : {true, false}) {
    EXPECT_EQ(be(common::util::DeviceText(found.st_dev), found.st_ino + 1), "event, ") << "it has got the path";
    EXPECT_EQ(be("ff:fe", found.st_ino), "event, Python") << "it may be one of another file system";
    EXPECT_EQ(be("", 0), "event, Python") << "nobody knows which one it was";
    if (is_seen) generator_->BeginTurn();
  }
  FakeEvent link = OfFileOnDisk("script");
  link.file_type = edr::FileType::SymbolicLink;
  EXPECT_EQ(File(link).type() + File(link).sha256(), "");
}

TEST_F(GeneratorOfKnownFilesTest, ALookAnswersForTheWholeTurn) {
  folder_.Write("script", "x");
  KeepContentOf("script");
  const FakeEvent event = OfFileOnDisk("script");
  EXPECT_EQ(ToldBy(event), "cache");
  folder_.Write("script", "written after all events of the turn");
  EXPECT_EQ(ToldBy(event), "cache");
  generator_->BeginTurn();
  EXPECT_EQ(ToldBy(event), "event, Python");
}

TEST_F(GeneratorOfKnownFilesTest, InALongTurnALookAnswersForATime) {
  folder_.Write("script", "x");
  KeepContentOf("script");
  const FakeEvent event = OfFileOnDisk("script");
  EXPECT_EQ(ToldBy(event), "cache");
  folder_.Write("script", "written in the midst of the turn");
  clock_.Advance(FileLooks::kLongest - std::chrono::milliseconds(1));
  EXPECT_EQ(ToldBy(event), "cache");
  clock_.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(ToldBy(event), "event, Python");
}

TEST_F(GeneratorOfKnownFilesTest, ALookAnswersForEachEventThatKnowsItsFileInThatState) {
  folder_.Write("script", "x");
  KeepContentOf("script");
  FakeEvent event = OfFileOnDisk("script");
  event.state = StateOf("script");
  EXPECT_EQ(ToldBy(event), "cache");
  folder_.Write("script", "written since, in another turn");
  generator_->BeginTurn();
  clock_.Advance(FileLooks::kLongest);
  EXPECT_EQ(ToldBy(event), "cache") << "by the look from before";
  event.state->changed_ns ^= 1;
  EXPECT_EQ(ToldBy(event), "event, Python") << "nobody has looked at that one";
}

TEST_F(GeneratorOfKnownFilesTest, WithinATurnALookAnswersForEventsOfOtherStatesAsWell) {
  folder_.Write("script", "x");
  KeepContentOf("script");
  FakeEvent event = OfFileOnDisk("script");
  event.state = StateOf("script");
  EXPECT_EQ(ToldBy(event), "cache");
  folder_.Write("script", "written after all events of the turn");
  event.state->size += 1;
  EXPECT_EQ(ToldBy(event), "cache");
}

TEST_F(GeneratorOfKnownFilesTest, OfManyFilesTheLatestAreRemembered) {
  const auto tell_of = [&](std::size_t first, std::size_t last) {
    for (std::size_t i = first; i <= last; ++i) {
      folder_.Write(std::to_string(i), "x");
      KeepContentOf(std::to_string(i));
      EXPECT_EQ(ToldBy(OfFileOnDisk(std::to_string(i))), "cache");
    }
  };
  tell_of(1, FileLooks::kMaxFiles);
  const FakeEvent first = OfFileOnDisk("1");
  const FakeEvent second = OfFileOnDisk("2");
  for (const char* name : {"1", "2"}) folder_.Write(name, "written in the midst of the turn");
  EXPECT_EQ(ToldBy(first), "cache");
  tell_of(FileLooks::kMaxFiles + 1, FileLooks::kMaxFiles + 1);
  EXPECT_EQ(ToldBy(first), "cache");
  EXPECT_EQ(ToldBy(second), "event, Python") << "its place was taken";
}

TEST_F(GeneratorTest, KeepingHouseRemembersWhatABurstHasLeft) {
  Process(OfFile(EventType::Create, "Create"));
  for (int i = 0; i < 30; ++i) {
    Process(OfFile(EventType::Create, "Create", "/srv/" + std::to_string(i)));
    snapshot_->Vacuum();
  }
  const auto is_on_disk = [&] {
    return !snapshot_->Query("SELECT * from File WHERE RowID = '" + UniquePathId("/srv/29") + "'").Next().empty();
  };
  EXPECT_FALSE(is_on_disk());
  clock_.Advance(std::chrono::seconds(1));
  generator_->KeepHouse();
  EXPECT_TRUE(is_on_disk());
}

class GeneratorBehindABurstTest : public GeneratorOfKnownFilesTest {
 protected:
  // A burst of events, the first of which is told in the same way behind a minute without any. For each event that
  // minute frees more than so many bytes.
  void ExpectFreed(const std::function<void(int)>& tell, std::size_t bytes) {
    constexpr int kBurst = 500;
    spool_.written.clear();
    tell(0);
    const std::vector<std::string> told = std::exchange(spool_.written, {});
    ASSERT_EQ(told.size(), 1U);
    for (int number = 1; number < kBurst - 1; ++number) tell(number);
    KeepHouseBehind(std::chrono::milliseconds(1));
    KeepHouseBehind(std::chrono::seconds(30));
    tell(kBurst - 1);
    KeepHouseBehind(std::chrono::milliseconds(1));
    KeepHouseBehind(std::chrono::milliseconds(59'999));
    const std::size_t held = fakes::HeapInUse();
    KeepHouseBehind(std::chrono::milliseconds(1));
    if (fakes::kKnowsItsHeap) {
      EXPECT_GT(held, fakes::HeapInUse() + kBurst * bytes);
    }
    spool_.written.clear();
    tell(0);
    EXPECT_EQ(spool_.written, told);
  }
  void KeepHouseBehind(std::chrono::milliseconds time) {
    snapshot_->Vacuum();  // behind all that waits for the disk
    clock_.Advance(time);
    generator_->KeepHouse();
    snapshot_->Vacuum();
  }
};

// Paths, ids and rows: each of them alone is less.
TEST_F(GeneratorBehindABurstTest, AQuietMinuteFreesWhatIsRememberedOfPaths) {
  ExpectFreed([&](int number) { Process(OfFile(EventType::Write, "Write", "/srv/" + std::to_string(number))); }, 1'080);
}

TEST_F(GeneratorBehindABurstTest, AQuietMinuteFreesWhatIsRememberedOfActors) {
  for (std::int32_t pid = 1'000; pid < 1'500; ++pid) Enter(pid, 10, "/bin/cat", {"cat"});
  const auto tell_of_a_file = [&](int number) {
    FakeEvent event = OfFile(EventType::Write, "Write");
    event.pid = 1'000 + number;
    Process(event);
  };
  ExpectFreed(tell_of_a_file, 360);
  const auto tell_of_a_start = [&](int number) {
    FakeEvent event = OfProcess(EventType::ProcessStart, "Execve");
    event.ppid = 1'000 + number;
    Process(event);
  };
  ExpectFreed(tell_of_a_start, 360);
}

TEST_F(GeneratorBehindABurstTest, AQuietMinuteFreesLooksAtFiles) {
  const auto tell = [&](int number) {
    const std::string name = std::to_string(number);
    if (!std::filesystem::exists(folder_ / name)) folder_.Write(name, "x");
    KeepContentOf(name);
    Process(OfFileOnDisk(name));
  };
  ExpectFreed(tell, 1'900);
}

TEST_F(GeneratorTest, NoFileIsToldWithTheTypeOfAnother) {
  const std::string path = folder_.Write("script", "x");
  Remember("Directory", folder_.Path());
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  FakeEvent event = OfFile(EventType::Write, "Write", path);
  event.file = common::ImageInfo(path, found);
  EXPECT_EQ(File(event).type(), "Python");
  event.file =
      common::ImageInfo(common::util::DeviceText(found.st_dev), 644, found.st_ino + 1, path, 0, "root", "root", 0, "");
  EXPECT_EQ(File(event).type(), "") << "another file has got the path";
  event.file = common::ImageInfo(path);
  EXPECT_EQ(File(event).type(), "Python") << "nobody knows which file it was";
}

TEST_F(GeneratorTest, ASizeThatNotEveryReaderHasExactlyIsTruncated) {
  FakeEvent event = OfFile(EventType::Write, "Write");
  event.size = FileEvent::kMaxSize;
  EXPECT_EQ(File(event).size(), FileEvent::kMaxSize);
  EXPECT_EQ(log_.Count("File size being truncated"), 0);
  event.size = FileEvent::kMaxSize + 1;
  EXPECT_EQ(File(event).size(), FileEvent::kMaxSize);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "[IOC]: File size being truncated for file /srv/report.tar.gz"));
}

TEST_F(GeneratorTest, TheExtensionIsWhatFollowsTheLastDotOfTheName) {
  const std::pair<const char*, const char*> cases[] = {{"/srv/a.tar.gz", "gz"}, {"/srv/plain", ""},
                                                       {"/srv/.bashrc", ""},    {"/srv/.a.txt", "txt"},
                                                       {"/srv/end.", ""},       {"/srv/d.d/x", ""}};
  Remember("Directory", "/srv/d.d");
  for (const auto& [path, extension] : cases) {
    EXPECT_EQ(File(OfFile(EventType::Write, "Write", path)).extension(), extension) << path;
  }
}

TEST_F(GeneratorTest, TheCreationIsThatOfTheFileSystemWhileThePathLeadsToTheObject) {
  const std::string path = folder_.Write("file", "x");
  Remember("Directory", folder_.Path());
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  FakeEvent event = OfFile(EventType::Write, "Write", path);
  event.file = common::ImageInfo(path, found);
  const std::int64_t creation = File(event).creationtime();
  EXPECT_LE(std::abs(creation - found.st_ctime * kSecond), 5 * kSecond);
  EXPECT_EQ(creation % kSecond, 0);
  // Another object has been there: nobody knows when that was made.
  const auto object = [&](const std::string& device, std::uint64_t inode) {
    return common::ImageInfo(device, 644, inode, path, 0, "root", "root", 0, "");
  };
  event.file = object(common::util::DeviceText(found.st_dev), found.st_ino + 1);
  EXPECT_EQ(File(event).creationtime(), event.change_time);
  event.file = object("ff:ff", found.st_ino);
  EXPECT_EQ(File(event).creationtime(), event.change_time);
}

TEST_F(GeneratorTest, ASnapshotThatCannotBeReadIsAnErrorAndTheFileCountsAsUnknown) {
  snapshot_->Execute("DROP TABLE File");
  snapshot_->Execute("DROP TABLE Directory");
  EXPECT_EQ(Refusal(OfFile(EventType::Delete, "Delete", folder_ / "f")),
            "Dropping delete event for unreported file: " + folder_ / "f");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to read file entry from snapshot DB for " + folder_ / "f"));
  Process(OfFile(EventType::Create, "Create", folder_ / "f"));
  EXPECT_EQ(spool_.written.size(), 2U);
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to read directory entry from snapshot DB for " + folder_.Path()));
  generator_.reset();
  snapshot_.reset();
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to update 'File' table in snapshot DB for file " + folder_ / "f"));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to update 'Directory' table in snapshot for " + folder_.Path()));
}

// Directories

TEST_F(GeneratorTest, TheEndOfADirectoryIsToldOnlyWhenThePlatformKnowsIt) {
  EXPECT_EQ(Refusal(OfDirectory(EventType::Delete, "Delete")),
            "Dropping delete event for unreported directory: /srv/new");
  Process(OfDirectory(EventType::Create, "Create"));
  EXPECT_TRUE(IsKnown("Directory", "/srv/new"));
  EXPECT_EQ(Only<wire::DirectoryEvent>(OfDirectory(EventType::Delete, "Delete")).eventaction(), wire::DELETE);
  EXPECT_FALSE(IsKnown("Directory", "/srv/new"));
}

TEST_F(GeneratorTest, ARenamedDirectoryIsKnownUnderItsNewNameAlone) {
  FakeEvent rename = OfDirectory(EventType::Rename, "Rename", "/srv/old");
  rename.new_file = Image("/srv/new");
  Remember("Directory", "/srv/old");
  EXPECT_EQ(Only<wire::DirectoryEvent>(rename).path(), "/srv/new");
  EXPECT_TRUE(IsKnown("Directory", "/srv/new"));
  EXPECT_FALSE(IsKnown("Directory", "/srv/old"));
}

TEST_F(GeneratorTest, ADirectoryThatIsGoneHasNoTimes) {
  FakeEvent event = OfDirectory(EventType::Create, "Create");
  event.size = -1;
  const auto message = Only<wire::DirectoryEvent>(event);
  EXPECT_EQ(message.lastwritetime(), 0);
  EXPECT_EQ(message.creationtime(), 0);
}

TEST_F(GeneratorTest, ADirectoryWithoutAPathIsRefused) {
  EXPECT_EQ(Refusal(OfDirectory(EventType::Create, "Create", "")), "Failed to load directory path for reputation: ");
}

// Connections

TEST_F(GeneratorTest, AnEventThatIsNoConnectionIsRefused) {
  EXPECT_EQ(Refusal(Connection(EventType::Write, "Write")), "Invalid action for network event 77");
  EXPECT_TRUE(spool_.written.empty());
}

TEST_F(GeneratorTest, AConnectionIsNamedByItsProcessAndItsPeer) {
  const auto id = [&](const FakeEvent& event) { return Only<wire::NetworkEvent>(event).uniqueid(); };
  const FakeEvent event = Connection(EventType::Connect, "Connect");
  FakeEvent again = event;
  again.timestamp += kSecond;
  EXPECT_EQ(id(event), id(again));
  FakeEvent port = event;
  port.network_port = 80;
  EXPECT_NE(id(event), id(port));
  FakeEvent address = event;
  address.network_address = "192.0.2.8";
  EXPECT_NE(id(event), id(address));
  FakeEvent process = event;
  process.pid = 10;
  EXPECT_NE(id(event), id(process));
  EXPECT_NE(id(event), id(Connection(EventType::Bind, "Bind")));
}

// Processes

TEST_F(GeneratorTest, AProcessThatTheTreeDoesNotHaveIsRefused) {
  FakeEvent event = OfProcess(EventType::ProcessExit, "Exit");
  event.pid = 99;
  EXPECT_EQ(Refusal(event), "PID: 99 does not exist in tree for event ID: 77");
}

TEST_F(GeneratorTest, OnlyStartAndEndOfAProcessAreTold) {
  for (const EventType type : {EventType::ProcessClone, EventType::Write, EventType::Connect}) {
    EXPECT_EQ(Refusal(OfProcess(type, "x")), "Invalid event action for process event with ID 77");
  }
}

TEST_F(GeneratorTest, StartAndEndOfAProcessHaveTheSameIdentity) {
  const wire::ProcessEvent start = ProcessMessage(OfProcess(EventType::ProcessStart, "Execve"));
  wire::ProcessEvent end = ProcessMessage(OfProcess(EventType::ProcessExit, "Exit"));
  EXPECT_EQ(start.eventaction(), wire::RUNNING);
  EXPECT_EQ(end.eventaction(), wire::TERMINATED);
  EXPECT_EQ(start.status(), "");
  EXPECT_EQ(end.status(), "Stop");
  end.set_eventaction(start.eventaction());
  end.clear_status();
  EXPECT_EQ(end.SerializeAsString(), start.SerializeAsString());
}

TEST_F(GeneratorTest, AStartIsThatOfItsProgramNotOfOneThatTheProcessStartedSince) {
  Enter(20, 10, "/bin/true", {"true"});
  const wire::ProcessEvent message = ProcessMessage(OfProcess(EventType::ProcessStart, "Execve"));
  EXPECT_EQ(message.imagepath(), "/bin/cat");
  EXPECT_EQ(message.processname(), "cat");
  EXPECT_EQ(message.arguments(), "cat /etc/passwd");
  EXPECT_EQ(message.uniqueid(), UniqueProcessId(20, kLater, "/bin/cat"));
}

// After a restart: what audit knows of it is when the kernel made the process.
TEST_F(GeneratorTest, AMadeUpStartOfAKnownProcessHasTheIdentityOfItsActions) {
  FakeEvent start = OfProcess(EventType::ProcessStart, "Execve");
  start.id = 0;
  start.timestamp = kLater - 600 * kSecond;
  const wire::ProcessEvent message = ProcessMessage(start);
  EXPECT_EQ(message.uniqueid(), File(OfFile(EventType::Write, "Write")).actor().uniqueprocessid());
  EXPECT_EQ(message.creationtime(), kLater);
  start.image = Image("/bin/before");
  EXPECT_EQ(ProcessMessage(start).uniqueid(), UniqueProcessId(20, start.timestamp, "/bin/before"));
}

TEST_F(GeneratorTest, AnEndThatNobodyCanAskMuchIsTold) {
  const edr::PseudoTerminateEvent end(*tree_->Get(20), clock_);
  generator_->Process(end, false);
  ASSERT_EQ(spool_.written.size(), 1U);
  wire::ProcessEvent message;
  ASSERT_TRUE(message.ParseFromString(spool_.written[0].substr(1)));
  EXPECT_EQ(message.eventaction(), wire::TERMINATED);
  EXPECT_EQ(message.imagepath(), "/bin/cat");
  EXPECT_EQ(message.parentprocessid(), 10);
}

TEST_F(GeneratorTest, AProcessWithoutAParentIsToldWithoutAnActor) {
  FakeEvent event = OfProcess(EventType::ProcessStart, "Execve");
  event.pid = 1;
  event.ppid = 0;
  event.image = Image("/sbin/init");
  const wire::ProcessEvent message = ProcessMessage(event);
  EXPECT_FALSE(message.has_actor());
  EXPECT_EQ(message.parentprocessid(), 0);
  EXPECT_TRUE(log_.Has("[IOC]: Failed to get parent process information with PID -1"));
}

TEST_F(GeneratorTest, AStartIsThatOfItsParentThoughTheProcessHangsUnderProcess1Since) {
  FakeEvent orphan = OfProcess(EventType::Write, "Write");
  orphan.ppid = 1;
  tree_->AddEvent(orphan.Clone());
  ASSERT_EQ(tree_->Get(20)->GetParent(), 1);
  const wire::ProcessEvent start = ProcessMessage(OfProcess(EventType::ProcessStart, "Execve"));
  EXPECT_EQ(start.parentprocessid(), 10);
  EXPECT_EQ(start.actor().processid(), 10);
  EXPECT_EQ(ProcessMessage(OfProcess(EventType::ProcessExit, "Exit")).parentprocessid(), 1);
}

TEST_F(GeneratorTest, WhoHasGotTheParentsPidSinceIsNotTheActor) {
  FakeEvent end = OfProcess(EventType::ProcessExit, "Exit");
  end.pid = 10;
  end.ppid = 1;
  tree_->AddEvent(end.Clone());
  FakeEvent again = OfProcess(EventType::ProcessStart, "Execve");
  again.pid = 10;
  again.ppid = 1;
  again.timestamp = kLater + 1;
  tree_->AddEvent(again.Clone());
  const wire::ProcessEvent message = ProcessMessage(OfProcess(EventType::ProcessStart, "Execve"));
  EXPECT_EQ(message.parentprocessid(), 10);
  EXPECT_FALSE(message.has_actor());
  EXPECT_TRUE(log_.Has("[IOC]: Failed to get parent process information with PID 10"));
}

TEST_F(GeneratorTest, AParentThatHasGoneIsToldByItsPidAlone) {
  FakeEvent start = OfProcess(EventType::ProcessStart, "Execve");
  start.ppid = 99;
  const wire::ProcessEvent message = ProcessMessage(start);
  EXPECT_EQ(message.parentprocessid(), 99);
  EXPECT_FALSE(message.has_actor());
  EXPECT_TRUE(log_.Has("[IOC]: Failed to get parent process information with PID 99"));
}

TEST_F(GeneratorTest, AProgramIsOnDiskWhileItsFileIsThere) {
  const std::string path = folder_.Write("tool", "x");
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  FakeEvent event = OfProcess(EventType::ProcessStart, "Execve");
  event.image = common::ImageInfo(path, found);
  EXPECT_TRUE(ProcessMessage(event).ondisk());
  event.image = Image(path);
  EXPECT_FALSE(ProcessMessage(event).ondisk()) << "another file has its name";
  unlink(path.c_str());
  event.image = common::ImageInfo(path, found);
  EXPECT_FALSE(ProcessMessage(event).ondisk());
}

TEST_F(GeneratorTest, LongArgumentsAreCutBetweenCharactersAndSaySo) {
  FakeEvent event = OfProcess(EventType::ProcessStart, "Execve");
  event.arguments = {"x", std::string(ProcessEvent::kMaxArguments - 2, 'a')};
  EXPECT_EQ(ProcessMessage(event).arguments().size(), ProcessEvent::kMaxArguments);
  event.arguments.emplace_back("b");
  EXPECT_EQ(ProcessMessage(event).arguments(), "x " + std::string(ProcessEvent::kMaxArguments - 5, 'a') + "...");
  event.arguments = {std::string(ProcessEvent::kMaxArguments - 4, 'a') + "\xC3\xA4", "bcd"};
  EXPECT_EQ(ProcessMessage(event).arguments(), std::string(ProcessEvent::kMaxArguments - 4, 'a') + "...");
}

TEST_F(GeneratorTest, ArgumentsNeverMakeAnEventThatTheSpoolRefuses) {
  section_.max_file_size_kb = 4;
  config_.Update(ParsedJson(section_.Text()));
  spool_.max_item_size = 4096;
  FakeEvent event = OfProcess(EventType::ProcessStart, "Execve");
  event.arguments.assign(255, std::string(100, 'a'));
  EXPECT_EQ(ProcessMessage(event).arguments().size(), 2048U);
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
