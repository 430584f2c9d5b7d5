#include "src/fim/EventDocument.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"
#include "tests/src/fim/Json.h"

namespace zagent::fim::internal {
namespace {

using edr::EventType;
using fakes::FakeEvent;

FakeEvent MakeEvent(EventType type, const std::string& action, const std::string& path = "/etc/passwd") {
  FakeEvent event(type, action, path);
  event.id = 4711;
  event.timestamp = 1'714'558'830'000'000'000;
  event.image = common::ImageInfo("/usr/bin/vi");
  event.pid = 1234;
  event.uid = 0;
  event.user_name = "root";
  event.auid = 1000;
  event.login_name = "alice";
  event.command_line = "vi /etc/passwd";
  return event;
}

common::ImageInfo Settings(std::uint32_t uid, const std::string& owner, std::uint32_t permission) {
  return {"fd:00", permission, 99, "/etc/passwd", 42, "shadow", owner, uid, ""};
}

EventDocumentParts Parts() {
  return {{"rule-1"}, false, std::nullopt};
}

Json Build(const FakeEvent& event, const EventDocumentParts& parts = Parts()) {
  return Json(BuildEventDocument(event, parts));
}

TEST(EventDocumentTest, WhatNobodyKnownDidHasNoMembersOfAnActor) {
  FakeEvent event = MakeEvent(EventType::Create, "Create");
  event.pid = 0;
  const Json json = Build(event);
  EXPECT_EQ(json.Keys("actor"), "");
  EXPECT_EQ(json.At("imagePath"), "/etc/passwd");
}

TEST(EventDocumentTest, AWriteIsWrittenWithItsMembersInOrder) {
  FakeEvent event = MakeEvent(EventType::Write, "Write");
  event.size = 1'955;
  event.content_hash = {0x01, 0xAB, 0xFF};
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  EXPECT_EQ(BuildEventDocument(event, parts),
            R"({"successStatus":"yes","timestamp":"2024-05-01T10:20:30Z","eventId":4711,"eventAction":"Write",)"
            R"("eventClass":"Disk","eventType":"File","imagePath":"/etc/passwd","associatedRules":["rule-1"],)"
            R"("actor":{"imagePath":"/usr/bin/vi","processID":1234,"userName":"root","userID":0,)"
            R"("auditUserName":"alice","auditUserID":1000,"procTitle":"vi /etc/passwd"},)"
            R"("size":{"new":"0x7a3"},"fileContentHash":"01abff"})");
}

TEST(EventDocumentTest, ACreatedFileHasItsContentAtTheEnd) {
  FakeEvent event = MakeEvent(EventType::Create, "Create");
  event.size = 0;
  EventDocumentParts parts = Parts();
  parts.content = FileContent{FileContent::kReadSuccessful, {'h', 'i', '\n'}};
  const Json json = Build(event, parts);
  EXPECT_EQ(json.Keys(),
            "successStatus,timestamp,eventId,eventAction,eventClass,eventType,imagePath,associatedRules,actor,size,"
            "fileContent,contentStatus");
  EXPECT_EQ(json.At("size", "new"), "0x0");
  EXPECT_EQ(json.At("fileContent"), "aGkK");
  EXPECT_EQ(json.At("contentStatus"), "READ_SUCCESSFUL");
}

TEST(EventDocumentTest, LongContentIsOneLineOfBase64) {
  FakeEvent event = MakeEvent(EventType::Write, "Write");
  EventDocumentParts parts = Parts();
  parts.content = FileContent{FileContent::kReadSuccessful, std::vector<unsigned char>(FileContent::kMaxSize, 0)};
  EXPECT_EQ(Build(event, parts).At("fileContent"), std::string(FileContent::kMaxSize / 3 * 4, 'A') + "AAA=");
}

TEST(EventDocumentTest, ADeletedFileHasNoSizeAndADigestOnlyIfThereIsOne) {
  FakeEvent event = MakeEvent(EventType::Delete, "Delete");
  event.size = 12;
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  const Json json = Build(event, parts);
  EXPECT_EQ(json.Keys(),
            "successStatus,timestamp,eventId,eventAction,eventClass,eventType,imagePath,associatedRules,actor");
  EXPECT_EQ(json.At("successStatus"), "yes");
  EXPECT_EQ(json.At("imagePath"), "/etc/passwd");
  event.content_hash = {0x7F};
  EXPECT_EQ(Build(event, parts).At("fileContentHash"), "7f");
}

TEST(EventDocumentTest, AnAttributeChangeShowsOldAndNewSettings) {
  FakeEvent event = MakeEvent(EventType::AttributeChange, "Change");
  event.file = Settings(0, "root", 644);
  event.new_file = Settings(1000, "alice", 4755);
  event.content_hash = {1};
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  const Json json = Build(event, parts);
  EXPECT_EQ(json.Keys(),
            "successStatus,timestamp,eventId,eventAction,eventClass,eventType,imagePath,associatedRules,actor,"
            "securitySettings");
  EXPECT_EQ(json.Keys("securitySettings"), "old,new");
  EXPECT_EQ(json.At("securitySettings", "old"),
            R"({"uid":0,"gid":42,"permission":644,"owner":"root","group":"shadow"})");
  EXPECT_EQ(json.At("securitySettings", "new"),
            R"({"uid":1000,"gid":42,"permission":4755,"owner":"alice","group":"shadow"})");
}

TEST(EventDocumentTest, ARenameShowsBothPaths) {
  FakeEvent event = MakeEvent(EventType::Rename, "Rename", "/srv/watched/a");
  event.new_file = common::ImageInfo("/tmp/b");
  event.size = 255;
  const Json json = Build(event);
  EXPECT_EQ(json.At("imagePath"), "/srv/watched/a");
  EXPECT_EQ(json.At("operation"), R"({"new":"/tmp/b","old":"/srv/watched/a"})");
  EXPECT_EQ(json.At("size"), R"({"new":"0xff"})");
}

TEST(EventDocumentTest, ADirectoryHasNeitherSizeNorDigest) {
  FakeEvent event = MakeEvent(EventType::Create, "Create", "/srv/watched/folder");
  event.object_type = edr::ObjectType::Directory;
  event.size = 4'096;
  event.content_hash = {1};
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  const Json json = Build(event, parts);
  EXPECT_EQ(json.At("eventType"), "Directory");
  EXPECT_EQ(json.At("size"), "(none)");
  EXPECT_EQ(json.At("fileContentHash"), "(none)");
}

TEST(EventDocumentTest, AReadHasASizeButNoDigest) {
  FakeEvent event = MakeEvent(EventType::Read, "Read");
  event.size = 16;
  event.content_hash = {1};
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  const Json json = Build(event, parts);
  EXPECT_EQ(json.At("size", "new"), "0x10");
  EXPECT_EQ(json.At("fileContentHash"), "(none)");
}

TEST(EventDocumentTest, DigestsAreLeftOutUntilTheyAreWanted) {
  FakeEvent event = MakeEvent(EventType::Write, "Write");
  event.content_hash = {1};
  EXPECT_EQ(Build(event).At("fileContentHash"), "(none)");
}

TEST(EventDocumentTest, ADigestIsInTheDebugLog) {
  const fakes::LogCapture log;
  FakeEvent event = MakeEvent(EventType::Write, "Write");
  event.content_hash = {0xCA, 0xFE};
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  Build(event, parts);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[FIM]: PATH: /etc/passwd SHA256: cafe"));
}

TEST(EventDocumentTest, AFailedCallAndAnUnknownObjectAreNamedAsSuch) {
  FakeEvent event = MakeEvent(EventType::Write, "Write");
  event.successful = false;
  event.object_type = edr::ObjectType::Network;
  const Json json = Build(event);
  EXPECT_EQ(json.At("successStatus"), "no");
  EXPECT_EQ(json.At("eventType"), "Unknown");
}

TEST(EventDocumentTest, NamesThatAreNoUtf8DoNotHideTheEvent) {
  FakeEvent event = MakeEvent(EventType::Rename, "Rename", "/srv/watched/\xFFname\x01\"\\");
  event.new_file = common::ImageInfo("/srv/watched/\xC3");
  event.command_line = "mv \xF0.log";
  const Json json = Build(event);
  EXPECT_EQ(json.At("imagePath"), "/srv/watched/\xEF\xBF\xBDname\x01\"\\");
  EXPECT_EQ(json.At("operation", "new"), "/srv/watched/\xEF\xBF\xBD");
  EXPECT_EQ(json.At("actor", "procTitle"), "mv \xEF\xBF\xBD.log");
}

TEST(EventDocumentTest, APathThatIsNoUtf8HasItsBytesAsTheLastMember) {
  EventDocumentParts parts = Parts();
  parts.content = FileContent{FileContent::kReadFailure, {}};
  const Json one = Build(MakeEvent(EventType::Write, "Write", "/srv/\xFF"), parts);
  const Json other = Build(MakeEvent(EventType::Write, "Write", "/srv/\xFE"), parts);
  EXPECT_EQ(one.At("imagePath"), other.At("imagePath"));
  EXPECT_EQ(one.At("imagePathBytes"), "L3Nydi//");
  EXPECT_EQ(other.At("imagePathBytes"), "L3Nydi/+");
  const std::string last = ",contentStatus,imagePathBytes";
  EXPECT_EQ(one.Keys().substr(one.Keys().size() - last.size()), last);
  EXPECT_EQ(Build(MakeEvent(EventType::Write, "Write", "/srv/\xC3\xA4")).At("imagePathBytes"), "(none)");
}

TEST(EventDocumentTest, APathOfWhichOnlyTheNewNameIsNoUtf8HasNone) {
  FakeEvent event = MakeEvent(EventType::Rename, "Rename", "/srv/a");
  event.new_file = common::ImageInfo("/srv/\xFF");
  EXPECT_EQ(Build(event).At("imagePathBytes"), "(none)");
}

// An event of which some answers are not to be had.
class MuteEvent : public edr::Event {
 public:
  explicit MuteEvent(FakeEvent event) : event_(std::move(event)) {}
  std::unique_ptr<edr::Event> Clone() const override { return nullptr; }
  EventType GetType() const override { return event_.GetType(); }
  std::string GetAction() const override { return event_.GetAction(); }
  std::uint32_t GetId() const override { return event_.GetId(); }
  std::uint32_t GetActorEuid() const override { throw Mute(); }
  const std::vector<std::string>& GetActorProcessArguments() const override { throw Mute(); }
  std::int32_t GetActorProcessId() const override { return event_.GetActorProcessId(); }
  std::int32_t GetActorParentProcessId() const override { throw Mute(); }
  const std::string& GetActorUserName() const override { throw Mute(); }
  std::uint32_t GetActorUserId() const override { return event_.GetActorUserId(); }
  const std::string& GetActorLoginName() const override { throw Mute(); }
  std::uint32_t GetActorAuid() const override { return event_.GetActorAuid(); }
  const std::string& GetCommandLine() const override { throw Mute(); }
  const common::ImageInfo* GetFile() const override { return event_.GetFile(); }
  std::int64_t GetFileAccessTime() const override { throw Mute(); }
  std::int64_t GetFileChangeTime() const override { throw Mute(); }
  const std::vector<unsigned char>& GetFileContent() const override { throw Mute(); }
  const std::vector<unsigned char>& GetFileContentHash(edr::ContentHash) const override { throw Mute(); }
  std::int64_t GetFileModificationTime() const override { throw Mute(); }
  std::int64_t GetFileSize() const override { throw Mute(); }
  edr::FileType GetFileType() const override { throw Mute(); }
  const std::string& GetFileTypeDesc() const override { throw Mute(); }
  const common::ImageInfo* GetImage() const override { return nullptr; }
  const common::ImageInfo* GetNewFile() const override { throw Mute(); }
  edr::ObjectType GetObjectType() const override { return event_.GetObjectType(); }
  std::uint64_t GetParentInode() const override { throw Mute(); }
  const std::string& GetParentDeviceID() const override { throw Mute(); }
  const std::string& GetCwd() const override { throw Mute(); }
  const common::ImageInfo* GetSecondaryImage() const override { throw Mute(); }
  std::int64_t GetTimestamp() const override { return event_.GetTimestamp(); }
  const std::string& GetNetworkAddress() const override { throw Mute(); }
  std::uint32_t GetNetworkPort() const override { throw Mute(); }
  const std::string& GetFileReadStatus() const override { throw Mute(); }
  bool HasSecondaryImage() const override { throw Mute(); }
  bool IsSymlink() const override { throw Mute(); }
  bool IsSuccessful() const override { return event_.IsSuccessful(); }
  bool IsElevated() const override { throw Mute(); }
  void Refresh() override {}
  void UpdateActorProcessId(std::int32_t) override {}
  void ParseRecord(int, const edr::RecordFields&) override {}
  void Validate() override {}
  const std::string& GetAuditKey() const override { throw Mute(); }

 private:
  static std::runtime_error Mute() { return std::runtime_error("not to be had"); }
  FakeEvent event_;
};

TEST(EventDocumentTest, AQuestionWithoutAnAnswerCostsItsMemberOnly) {
  const fakes::LogCapture log;
  EventDocumentParts parts = Parts();
  parts.collect_hashes = true;
  const Json write(BuildEventDocument(MuteEvent(MakeEvent(EventType::Write, "Write")), parts));
  EXPECT_EQ(write.Keys(),
            "successStatus,timestamp,eventId,eventAction,eventClass,eventType,imagePath,associatedRules,actor");
  EXPECT_EQ(write.Keys("actor"), "processID,userID,auditUserID");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Event document without 'procTitle': not to be had"));

  const Json change(BuildEventDocument(MuteEvent(MakeEvent(EventType::AttributeChange, "Change")), parts));
  EXPECT_EQ(change.Keys("securitySettings"), "old");
  const Json rename(BuildEventDocument(MuteEvent(MakeEvent(EventType::Rename, "Rename")), parts));
  EXPECT_EQ(rename.At("operation"), R"({"old":"/etc/passwd"})");
}

}  // namespace
}  // namespace zagent::fim::internal
