// What the page makes of an upload.
#include "tools/reference-receiver/PageUpload.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>

#include "common/src/util/Json.h"
#include "common/src/util/Utf8.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/fakes/TestData.h"

namespace zagent::tools {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

const std::string kFim = "/v1/fim/events";
const std::string kIoc = "/linuxagentevent/v1/customer/c/agent/a";

std::string Content(const std::string& file) {
  std::ifstream in(fakes::TestData(file), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

PageUpload Fim(const std::string& events) {
  return PageUpload::Read(kFim, R"({"events":[)" + events + "]}");
}

std::vector<std::string> Jsons(const PageUpload& upload) {
  std::vector<std::string> jsons;
  for (const PageUpload::Event& event : upload.events) jsons.push_back(event.json);
  return jsons;
}

TEST(PageUpload, ARenameHasBothPathsAndItsActor) {
  const PageUpload upload = Fim(Content("fim/rename.json"));
  EXPECT_EQ(PageUpload::Kind::Fim, upload.kind);
  ASSERT_THAT(upload.events, SizeIs(1));
  EXPECT_THAT(upload.events[0].json,
              AllOf(HasSubstr(R"("kind":"fim")"), HasSubstr(R"("action":"Rename")"),
                    HasSubstr(R"("path":"/srv/watched/notes.txt","to":"/tmp/notes.txt")"),
                    HasSubstr(R"("actor":{"path":"/usr/bin/vi","pid":"1234","user":"root","auditUser":"alice")")));
}

TEST(PageUpload, AChangeHasTheSettingsBeforeAndAfter) {
  EXPECT_THAT(
      Jsons(Fim(Content("fim/change.json"))),
      ElementsAre(AllOf(
          HasSubstr(R"("before":{"owner":"root","uid":"0","group":"shadow","gid":"42","permission":"644"})"),
          HasSubstr(R"("after":{"owner":"alice","uid":"1000","group":"shadow","gid":"42","permission":"4755"})"))));
}

TEST(PageUpload, NamesStayTextWhateverTheyHold) {
  const PageUpload upload = Fim(R"({"imagePath":"/w/<img src=x onerror=alert(1)>\u202e\n\"","eventAction":"Create"})");
  EXPECT_THAT(Jsons(upload), ElementsAre(HasSubstr("\"path\":\"/w/<img src=x onerror=alert(1)>\u202e\\n\\\"\"")));
}

TEST(PageUpload, BytesThatAreNoUtf8AreReplaced) {
  EXPECT_THAT(Jsons(Fim("{\"imagePath\":\"/w/\xe4\xff\"}")), ElementsAre(HasSubstr("\"path\":\"/w/\uFFFD\uFFFD\"")));
}

TEST(PageUpload, ALongTextEndsEarlyBetweenTwoCharactersAndSaysSo) {
  std::string path = "/x";
  for (int i = 0; i < 5000; ++i) path += "\u20ac";
  const PageUpload upload = Fim(R"({"imagePath":")" + path + R"("})");
  ASSERT_THAT(upload.events, SizeIs(1));
  const std::string& json = upload.events[0].json;
  EXPECT_THAT(json.size(), Lt(4300U));
  EXPECT_THAT(json, AllOf(HasSubstr("\u20ac\""), HasSubstr(R"("cut":true)"), Not(HasSubstr("\uFFFD"))));
}

TEST(PageUpload, ManyRulesEndEarlyAndSaySo) {
  std::string rules = "\"rule-0\"";
  for (int i = 1; i < 33; ++i) rules += ",\"rule-" + std::to_string(i) + "\"";
  EXPECT_THAT(Jsons(Fim(R"({"associatedRules":[)" + rules + "]}")),
              ElementsAre(AllOf(HasSubstr("\"rule-31\"]"), HasSubstr(R"("cut":true)"))));
}

TEST(PageUpload, ARowOfHealthHasThirtyTwoFieldsAtTheMost) {
  std::string fields = "\"field-0\":1";
  for (int i = 1; i < 33; ++i) fields += ",\"field-" + std::to_string(i) + "\":1";
  const PageUpload upload =
      PageUpload::Read("/v1/status", R"({"status":[{"statusCode":4004,"additionalFields":{)" + fields + "}}]}");
  EXPECT_THAT(upload.health, ElementsAre(AllOf(HasSubstr(R"("field-31":"1"})"), Not(HasSubstr("field-32")))));
  EXPECT_THAT(upload.lost, SizeIs(32));
}

TEST(PageUpload, MembersOfTheWrongTypeAreLeftOut) {
  EXPECT_THAT(
      Jsons(Fim(R"({"imagePath":{"a":[]},"actor":7,"operation":[],"size":"x","associatedRules":{}},3,null)")),
      ElementsAre(R"({"kind":"fim","actor":{}})", R"({"kind":"fim","actor":{}})", R"({"kind":"fim","actor":{}})"));
}

TEST(PageUpload, WhatIsNoDocumentAndNoBatchHasNothing) {
  for (const std::string text : {"", "{", "[]", "{\"events\":7}", "\xff\xfe"}) {
    const PageUpload upload = PageUpload::Read(kFim, text);
    EXPECT_EQ(PageUpload::Kind::Other, upload.kind) << text;
    EXPECT_THAT(upload.events, IsEmpty()) << text;
  }
  EXPECT_EQ(PageUpload::Kind::Other, PageUpload::Read(kIoc, "\xff").kind);
}

TEST(PageUpload, RowsOfHealthTellTheirFieldsAndWhatWasLost) {
  const PageUpload upload = PageUpload::Read("/v1/customer/c/agent/a/status", R"({"status":[
      {"dateTime":"2024-05-01T10:20:30Z","contextId":"FIM","statusCode":4001,"state":1,
       "additionalFields":{"component":"started","httpStatus":200}},
      {"contextId":"EDR","statusCode":4004,"state":0,
       "additionalFields":{"kernelLost":5,"spoolRefused":0,"since":"x","unplaced":18446744073709551615}},
      {"contextId":"EDR","statusCode":4004,"state":0,"additionalFields":{"kernelLost":2,"unplaced":9,"queueDropped":-1}}]})");
  EXPECT_EQ(PageUpload::Kind::Health, upload.kind);
  ASSERT_THAT(upload.health, SizeIs(3));
  EXPECT_EQ(R"({"time":"2024-05-01T10:20:30Z","context":"FIM","code":"4001","state":"1",)"
            R"("fields":{"component":"started","httpStatus":"200"}})",
            upload.health[0]);
  EXPECT_THAT(upload.lost, UnorderedElementsAre(Pair("kernelLost", 7), Pair("unplaced", 18446744073709551615ULL)));
}

TEST(PageUpload, EventsOfABatchComeByTimeWithStartsFirstAndEndsLast) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  wire::IoCEvent batch;
  batch.mutable_agent()->set_computername("host");
  batch.set_sequenceno(9);
  wire::FileEvent& file = *batch.add_fileevent();
  file.set_timestamp(2 * kSecond);
  file.set_fullpath("/tmp/file");
  for (const auto& [action, seconds] : {std::pair{wire::TERMINATED, 2}, {wire::RUNNING, 2}, {wire::RUNNING, 1}}) {
    wire::ProcessEvent& process = *batch.add_processevent();
    process.set_eventaction(action);
    process.set_timestamp(seconds * kSecond);
    process.set_imagepath("/bin/" + std::to_string(seconds));
  }
  const PageUpload upload = PageUpload::Read(kIoc, batch.SerializeAsString());
  EXPECT_EQ("host", upload.host);
  EXPECT_EQ(9U, upload.sequence_number);
  EXPECT_THAT(Jsons(upload), ElementsAre(HasSubstr("/bin/1"), HasSubstr(R"("action":"RUNNING")"),
                                         HasSubstr("/tmp/file"), HasSubstr(R"("action":"TERMINATED")")));
}

TEST(PageUpload, ARealBatchIsReadWhole) {
  const PageUpload upload = PageUpload::Read(kIoc, Content("page/payload-000005.bin"));
  EXPECT_EQ(PageUpload::Kind::Ioc, upload.kind);
  EXPECT_EQ("ostrel-guest", upload.host);
  EXPECT_THAT(upload.events, Not(IsEmpty()));
  for (const std::string& json : Jsons(upload)) {
    rapidjson::Document parsed;
    common::util::ParseJson(parsed, json);
    EXPECT_FALSE(parsed.HasParseError()) << json;
  }
}

}  // namespace
}  // namespace zagent::tools
