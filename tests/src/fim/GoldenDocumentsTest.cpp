// The documents of tests/data/fim: what the program writes, what the schemas allow and what the pages show is one.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>

#include "src/fim/BaselineEventInfo.h"
#include "src/fim/EventDocument.h"
#include "src/fim/JsonDataFormatter.h"
#include "src/fim/Manifest.h"
#include "src/fim/UploadDocument.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"
#include "tests/src/fim/Json.h"
#include "tools/json-schema/JsonSchema.h"

namespace zagent::fim::internal {
namespace {

using edr::EventType;
using fakes::FakeEvent;
using tools::FindSchemaFault;

const std::filesystem::path kRoot = fakes::SourceTree();

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << path;
  return {std::istreambuf_iterator<char>(in), {}};
}
std::string Golden(const std::string& name) {
  return ReadText(kRoot / "tests/data/fim" / (name + ".json"));
}
std::string WithoutBlanks(const std::string& json) {
  return common::util::WriteJson(Json(json).Value());
}

FakeEvent MakeEvent(EventType type, const std::string& action, const std::string& path = "/srv/watched/notes.txt") {
  FakeEvent event(type, action, path);
  event.id = 4711;
  event.timestamp = 1'714'558'830'000'000'000;
  event.image = common::ImageInfo("/usr/bin/vi");
  event.pid = 1234;
  event.auid = 1000;
  event.login_name = "alice";
  event.command_line = "vi notes.txt";
  event.size = 3;
  event.content_hash = {0x98, 0xEA, 0x6E, 0x4F, 0x21, 0x6F, 0x2F, 0xB4, 0xB6, 0x9F, 0xFF, 0x9B, 0x3A, 0x44, 0x84, 0x2C,
                        0x38, 0x68, 0x6C, 0xA6, 0x85, 0xF3, 0xF5, 0x5D, 0xC4, 0x8C, 0x5D, 0x3F, 0xB1, 0x10, 0x7B, 0xE4};
  return event;
}

common::ImageInfo Settings(std::uint32_t uid, const std::string& owner, std::uint32_t permission) {
  return {"fd:00", permission, 99, "/srv/watched/notes.txt", 42, "shadow", owner, uid, ""};
}

// The event of each golden document.
std::map<std::string, FakeEvent> GoldenEvents() {
  std::map<std::string, FakeEvent> events = {
      {"create", MakeEvent(EventType::Create, "Create")},
      {"write", MakeEvent(EventType::Write, "Write")},
      {"read", MakeEvent(EventType::Read, "Read")},
      {"change", MakeEvent(EventType::AttributeChange, "Change")},
      {"rename", MakeEvent(EventType::Rename, "Rename")},
      {"delete", MakeEvent(EventType::Delete, "Delete")},
      {"folder", MakeEvent(EventType::Create, "Create", "/srv/watched/new")},
      {"found", MakeEvent(EventType::Create, "Create")},
      {"raw-name", MakeEvent(EventType::Write, "Write", "/srv/watched/notes-\xE4")},
  };
  events.at("delete").content_hash.clear();
  events.at("change").file = Settings(0, "root", 644);
  events.at("change").new_file = Settings(1000, "alice", 4755);
  events.at("rename").new_file = common::ImageInfo("/tmp/notes.txt");
  events.at("folder").object_type = edr::ObjectType::Directory;
  events.at("folder").image = common::ImageInfo("/usr/bin/mkdir");
  events.at("folder").command_line = "mkdir new";
  events.at("found").id = 4'294'967'295U;
  events.at("found").pid = 0;
  events.at("found").content_hash.clear();
  events.at("raw-name").command_line = "vi notes-\xE4";
  return events;
}

EventDocumentParts PartsOf(const std::string& name) {
  EventDocumentParts parts = {{"5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01"}, true, std::nullopt};
  if (name == "create") parts.content = FileContent{FileContent::kReadSuccessful, {'h', 'i', '\n'}};
  return parts;
}

TEST(GoldenDocumentsTest, EveryKindOfEventIsWrittenAsItsDocumentSays) {
  for (const auto& [name, event] : GoldenEvents()) {
    EXPECT_EQ(BuildEventDocument(event, PartsOf(name)), WithoutBlanks(Golden(name))) << name;
  }
}

TEST(GoldenDocumentsTest, ABaselineIsWrittenAsItsDocumentSays) {
  const fakes::TempFolder folder;
  const std::string path = folder.Write("notes.txt", "hi\n");
  const fakes::FakeClock clock(common::util::Clock::SystemTime(std::chrono::seconds(1'714'558'830)));
  const BaselineEventInfo event(4711, EventType::Baseline, path, clock);
  EventDocumentParts parts = PartsOf("baseline");
  parts.content = FileContent{event.GetFileReadStatus(), event.GetFileContent()};
  std::string document = BuildEventDocument(event, parts);
  document.replace(document.find(path), path.size(), "/srv/watched/notes.txt");
  EXPECT_EQ(document, WithoutBlanks(Golden("baseline")));
}

TEST(GoldenDocumentsTest, EveryKindOfEventFollowsTheSchema) {
  for (const auto& [name, event] : GoldenEvents()) {
    EXPECT_EQ(FindSchemaFault("fim-event", BuildEventDocument(event, PartsOf(name))), std::nullopt) << name;
  }
  EXPECT_EQ(FindSchemaFault("fim-event", Golden("baseline")), std::nullopt);
}

TEST(GoldenDocumentsTest, TheSchemaOfEventsRefusesWhatIsNone) {
  struct Change {
    const char* golden;
    const char* old_text;
    const char* new_text;
  };
  for (const Change& change : {
           Change{"write", R"("eventAction": "Write",)", ""},
           Change{"write", R"("eventAction": "Write")", R"("eventAction": "Touch")"},
           Change{"write", R"("successStatus": "yes")", R"("successStatus": true)"},
           Change{"write", "2024-05-01T10:20:30Z", "2024-05-01 10:20:30"},
           Change{"write", R"("0x3")", "3"},
           Change{"write", R"("0x3")", R"("3")"},
           Change{"write", R"("98ea6e4f)", R"("98EA6E4F)"},
           Change{"write", R"("processID": 1234)", R"("processID": "1234")"},
           Change{"write", R"("processID": 1234)", R"("pid": 1234)"},
           Change{"write", R"(["5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01"])", "[]"},
           Change{"write", R"(["5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01"])", R"(["r", "r"])"},
           Change{"write", R"("eventId": 4711)", R"("eventId": 4711, "more": 1)"},
           Change{"create", R"(,
  "contentStatus": "READ_SUCCESSFUL")",
                  ""},
           Change{"change", R"("permission": 644)", R"("permission": "0644")"},
           Change{"change", "securitySettings", "operation"},
           Change{"rename", R"("eventAction": "Rename")", R"("eventAction": "Write")"},
           Change{"baseline", R"("eventAction": "Baseline")", R"("eventAction": "Write")"},
           Change{"read", R"("eventAction": "Read")", R"("eventAction": "Delete")"},
           Change{"raw-name", "L3Nydi93YXRjaGVkL25vdGVzLeQ=", "not base64!"},
       }) {
    std::string document = Golden(change.golden);
    const std::size_t at = document.find(change.old_text);
    ASSERT_NE(at, std::string::npos) << change.golden << ": " << change.old_text;
    document.replace(at, std::string(change.old_text).size(), change.new_text);
    EXPECT_NE(FindSchemaFault("fim-event", document), std::nullopt) << document;
  }
}

TEST(GoldenDocumentsTest, AnUploadIsWrittenAsItsDocumentSaysAndFollowsTheSchema) {
  JsonDataFormatter file;
  const std::string event = Golden("delete");
  file.Append({event.begin(), event.end()});
  const common::Bytes bytes = BuildUploadDocument(file.Finish(), "2024-05-01T10:30:00Z");
  const std::string upload(bytes.begin(), bytes.end());
  EXPECT_EQ(upload, WithoutBlanks(Golden("upload")));
  EXPECT_EQ(FindSchemaFault("fim-upload", upload), std::nullopt);
}

TEST(GoldenDocumentsTest, TheSchemaOfUploadsNamesWhatItRefuses) {
  EXPECT_EQ(FindSchemaFault("fim-upload", R"({"events":[],"timestamp":"2024-05-01T10:30:00Z"})"), std::nullopt);
  EXPECT_NE(FindSchemaFault("fim-upload", R"({"events":[]})"), std::nullopt);
  EXPECT_NE(FindSchemaFault("fim-upload", R"({"timestamp":"2024-05-01T10:30:00Z"})"), std::nullopt);
  EXPECT_EQ(FindSchemaFault("fim-upload", R"({"events":[],"timestamp":"today"})"), "/timestamp: pattern");
  EXPECT_EQ(FindSchemaFault("fim-upload", R"({"events":[{}],"timestamp":"2024-05-01T10:30:00Z"})"),
            "/events/0: required");
  EXPECT_EQ(FindSchemaFault("fim-upload", R"({"events":[)"), "Invalid value.");
  EXPECT_THROW(FindSchemaFault("fim-nothing", "{}"), std::runtime_error);
}

// The JSON blocks of a page, as they stand there.
std::set<std::string> Examples(const std::string& page) {
  const std::string text = ReadText(kRoot / "docs" / page);
  const std::string begin = "```json\n";
  std::set<std::string> examples;
  for (std::size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at)) {
    at += begin.size();
    examples.insert(text.substr(at, text.find("```", at) - at));
  }
  return examples;
}

TEST(GoldenDocumentsTest, ThePagesShowTheseDocumentsAndNoOthers) {
  std::set<std::string> of_events = {Golden("baseline"), Golden("upload")};
  for (const auto& [name, event] : GoldenEvents()) of_events.insert(Golden(name));
  EXPECT_EQ(Examples("EVENTS.md"), of_events);
  // The page tells of the manifests of indicators of compromise too.
  const auto of_others = [](const std::string& name) { return ReadText(kRoot / "tests/data/ioc" / (name + ".json")); };
  EXPECT_EQ(Examples("MANIFESTS.md"),
            (std::set<std::string>{Golden("manifest"), Golden("manifest-entry"), of_others("manifest-entry"),
                                   of_others("filters"), of_others("tags")}));
}

bool IsTakenByTheParser(const std::string& manifest) {
  try {
    const Manifest parsed(Json(manifest).Value());
    return true;
  } catch (const ManifestException&) {
    return false;
  }
}

TEST(GoldenDocumentsTest, ManifestsThatTheParserTakesFollowTheSchema) {
  for (const std::string& manifest : {Golden("manifest"), ReadText(kRoot / "examples/fim-manifest.json")}) {
    EXPECT_TRUE(IsTakenByTheParser(manifest));
    EXPECT_EQ(FindSchemaFault("fim-manifest", manifest), std::nullopt);
  }
}

TEST(GoldenDocumentsTest, TheMistakesOfManifestsAreMistakesOfTheSchemaToo) {
  struct Change {
    const char* old_text;
    const char* new_text;
  };
  for (const Change& change : {
           Change{R"("data")", R"("date")"},
           Change{R"("fim")", R"("FIM")"},
           Change{R"("policyVersion": "1.0")", R"("policyVersion": 1.0)"},
           Change{R"("collectHashes": true)", R"("collectHashes": "yes")"},
           Change{R"("collectHashes": true,)", ""},
           Change{R"("ruleId": "5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01",)", ""},
           Change{R"("ruleType": "directory")", R"("ruleType": "folder")"},
           Change{R"("imagePath": "/etc")", R"("imagePath": "etc")"},
           Change{R"("imagePath": "/etc")", R"("imagePath": "")"},
           Change{R"("recursiveDepth": "2")", R"("recursiveDepth": 2)"},
           Change{R"("recursiveDepth": "2")", R"("recursiveDepth": "two")"},
           Change{R"("recursiveDepth": "2",)", ""},
           Change{R"("modifyContent")", R"("write")"},
           Change{R"(["create", "delete", "rename", "modifyContent"])", "[]"},
           Change{R"("objectType": "file")", R"("objectType": "socket")"},
           Change{R"("objectType": "file", )", ""},
           Change{R"("patterns": ["*.swp"])", R"("patterns": "*.swp")"},
           Change{R"("patterns": ["*.swp"])", R"("patterns": [1])"},
           Change{R"(, "patterns": ["*.swp"])", ""},
           Change{R"("actorProcess": ["apt-get", "dpkg"])", R"("actorProcess": "apt-get")"},
           Change{R"("actorProcess": ["apt-get", "dpkg"])", ""},
           Change{R"("actorProcess")", R"("process")"},
           Change{R"("actorProcess": ["apt-get", "dpkg"])", R"("timespanStart": "01:00:00")"},
           Change{R"("actorProcess": ["apt-get", "dpkg"])", R"("timespanStart": "1", "timespanEnd": "2")"},
       }) {
    std::string manifest = Golden("manifest");
    const std::size_t at = manifest.find(change.old_text);
    ASSERT_NE(at, std::string::npos) << change.old_text;
    manifest.replace(at, std::string(change.old_text).size(), change.new_text);
    EXPECT_FALSE(IsTakenByTheParser(manifest)) << manifest;
    EXPECT_NE(FindSchemaFault("fim-manifest", manifest), std::nullopt) << manifest;
  }
}

}  // namespace
}  // namespace zagent::fim::internal
