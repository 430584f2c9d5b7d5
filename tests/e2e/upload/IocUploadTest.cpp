// Batches of indicators of compromise, as the receiver takes and shows them.
#include <gmock/gmock.h>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tools/reference-receiver/IocBatch.h"

namespace zagent::e2e {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using tools::IocBatch;
using tools::SequenceNumbers;

const std::string kPath = std::string("/linuxagentevent/v1/customer/") + kCustomer + "/agent/" + kAgent;

wire::IoCEvent Batch(std::uint64_t number) {
  wire::IoCEvent batch;
  batch.mutable_agent()->set_customerid(kCustomer);
  batch.mutable_agent()->set_agentid(kAgent);
  batch.mutable_agent()->set_computername("host");
  batch.mutable_agent()->set_boottime(1'600'000'000);
  batch.set_protofileid("6f9619ff-8b86-4011-b42d-00c04fc964ff");
  batch.set_sequenceno(number);
  return batch;
}

void SetActor(wire::Actor& actor) {
  actor.set_imagepath("/bin/cat");
  actor.set_processid(20);
  actor.set_username("alice");
}

class IocUploadTest : public UploadFixture {
 protected:
  void SetUp() override { StartReceiver(Options()); }

  // 0 is success.
  std::int32_t Send(const std::string& payload, const std::string& path = kPath,
                    const std::string& type = "application/octet-stream") {
    const auto uploader = Uploader();
    uploader->SetTarget(receiver_->GetUrl() + path);
    uploader->SetIndexedHeader(0, "1.0");
    uploader->SetIndexedHeader(1, "IOC");
    const std::int32_t result = uploader->Upload(type, BytesOf(payload));
    status_ = uploader->LastHttpStatus();
    return result;
  }
  std::int32_t Send(const wire::IoCEvent& batch) { return Send(batch.SerializeAsString()); }
  std::string LastLine() { return Lines().empty() ? "" : Lines().back(); }

  long status_ = 0;
};

TEST_F(IocUploadTest, ABatchIsShownEventByEvent) {
  wire::IoCEvent batch = Batch(3);
  batch.mutable_agent()->set_isquarantine(true);
  wire::DirectoryEvent& directory = *batch.add_directoryevent();
  directory.set_path("/srv");
  SetActor(*directory.mutable_actor());
  wire::FileEvent& file = *batch.add_fileevent();
  file.set_eventaction(wire::WRITE);
  file.set_fullpath("/srv/a\nioc FAKE\x1b");
  file.set_size(7);
  file.set_type("Python");
  file.set_sha256("abcd");
  SetActor(*file.mutable_actor());
  wire::FileEvent& renamed = *batch.add_fileevent();
  renamed.set_eventaction(wire::RENAME);
  renamed.set_oldpath("/srv/old");
  renamed.set_fullpath("/srv/new");
  wire::NetworkEvent& connection = *batch.add_networkevent();
  connection.set_eventaction(wire::ESTABLISHED);
  connection.set_remoteaddress("192.0.2.7");
  connection.set_remoteport(443);
  SetActor(*connection.mutable_actor());
  wire::NetworkEvent& listener = *batch.add_networkevent();
  listener.set_eventaction(wire::LISTEN);
  listener.set_localaddress("::");
  listener.set_localport(22);
  wire::ProcessEvent& process = *batch.add_processevent();
  process.set_eventaction(wire::TERMINATED);
  process.set_imagepath("/bin/cat");
  process.set_processid(20);
  process.set_parentprocessid(10);
  process.set_username("alice");
  process.set_status("Stop");
  process.set_arguments("cat /etc/passwd");
  process.mutable_actor()->set_imagepath("/bin/sh");
  wire::LoadedModule& module = *batch.add_loadedmodule();
  module.set_eventaction(static_cast<wire::EventAction>(99));
  module.set_modulename("m");

  ASSERT_EQ(Send(batch), 0);
  EXPECT_THAT(
      Lines(),
      ElementsAre(HasSubstr("listening on"),
                  "batch 3 events=7 host=host boot=1600000000 quarantine=yes id=6f9619ff-8b86-4011-b42d-00c04fc964ff",
                  "ioc NONE directory /srv actor=/bin/cat pid=20 user=alice",
                  "ioc WRITE file /srv/a\\x0aioc\\x20FAKE\\x1b actor=/bin/cat pid=20 user=alice size=7 type=Python "
                  "sha256=abcd",
                  "ioc RENAME file /srv/old -> /srv/new actor=- pid=0 user=- size=0 type=- sha256=-",
                  "ioc ESTABLISHED network 192.0.2.7:443 actor=/bin/cat pid=20 user=alice",
                  "ioc LISTEN network :::22 actor=- pid=0 user=-",
                  "ioc TERMINATED process /bin/cat pid=20 user=alice parent=10 actor=/bin/sh status=Stop "
                  "arguments=cat /etc/passwd",
                  "ioc 99 module m actor=- pid=0 user=-"));
}

TEST_F(IocUploadTest, AGapInTheNumbersIsTold) {
  for (const std::uint64_t number : {4, 5, 8, 8, 9, 2, 10}) ASSERT_EQ(Send(Batch(number)), 0);
  std::vector<std::string> remarks;
  for (const std::string& line : Lines()) {
    if (line.rfind("sequence", 0) == 0) remarks.push_back(line);
  }
  EXPECT_THAT(remarks, ElementsAre("sequence gap: 6 to 7 missing before 8", "sequence back: 8 after 8",
                                   "sequence back: 2 after 9"));
}

TEST_F(IocUploadTest, AGatewaysPrefixStandsInFrontOfThePath) {
  EXPECT_EQ(Send(Batch(1).SerializeAsString(), "/gateway" + kPath), 0);
  EXPECT_THAT(LastLine(), HasSubstr("batch 1 events=0"));
}

TEST_F(IocUploadTest, WhatIsNoBatchOfThisAgentIsRefused) {
  wire::IoCEvent foreign = Batch(1);
  foreign.mutable_agent()->set_agentid("somebody");
  wire::IoCEvent nobody;
  nobody.set_sequenceno(1);
  std::string bad_text = Batch(1).SerializeAsString();
  bad_text.replace(bad_text.find("host"), 1, "\xff");
  const std::string good = Batch(1).SerializeAsString();
  for (const std::string& payload :
       {foreign.SerializeAsString(), nobody.SerializeAsString(), Batch(0).SerializeAsString(), bad_text,
        good.substr(0, good.size() - 1), std::string(R"({"events":[]})")}) {
    EXPECT_NE(Send(payload), 0);
    EXPECT_EQ(status_, 400);
    EXPECT_EQ(LastLine(), "rejected: no batch of this agent");
  }
  const std::string foreign_path = std::string("/linuxagentevent/v1/customer/") + kCustomer + "/agent/somebody";
  EXPECT_NE(Send(good, foreign_path), 0);
  EXPECT_EQ(LastLine(), "rejected: no batch of this agent");
  EXPECT_TRUE(receiver_->GetPayloads().empty());
}

TEST_F(IocUploadTest, ABatchIsOfItsContentTypeAlone) {
  EXPECT_NE(Send(Batch(1).SerializeAsString(), kPath, "application/json"), 0);
  EXPECT_EQ(status_, 415);
  EXPECT_EQ(LastLine(), "rejected: a batch is application/octet-stream");
}

TEST_F(IocUploadTest, AnUploadThatComesAgainIsNoBatchOfItsOwn) {
  const auto uploader = Uploader();
  uploader->SetTarget(receiver_->GetUrl() + kPath);
  const std::string payload = Batch(1).SerializeAsString();
  for (int i = 0; i < 2; ++i) {
    uploader->SetSource({.path = "/spool/ioc.0001", .prefix = "ioc", .inode = 2, .modified = 3, .size = 4});
    ASSERT_EQ(uploader->Upload("application/octet-stream", BytesOf(payload)), 0);
  }
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("listening on"), HasSubstr("batch 1 "), HasSubstr("repeated: ")));
}

TEST(IocBatchTest, NoNameFakesAPartOfALine) {
  wire::IoCEvent batch = Batch(1);
  wire::ProcessEvent& process = *batch.add_processevent();
  process.set_imagepath("/tmp/a pid=1\xC2\x9B\xC3\xA4\x7f\\");
  process.set_username("eve user=root");
  process.set_arguments("a b\tc\xC2\x85");
  const auto decoded = tools::IocBatch::Decode(batch.SerializeAsString());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->lines.at(1),
            "ioc NONE process /tmp/a\\x20pid=1\\xc2\\x9b\xC3\xA4\\x7f\\\\ pid=0 user=eve\\x20user=root parent=0 "
            "actor=- status=- arguments=a b\\x09c\\xc2\\x85");
}

TEST(SequenceNumbersTest, TheFirstNumberIsTheBeginning) {
  SequenceNumbers numbers;
  EXPECT_EQ(numbers.Note(500), std::nullopt);
  EXPECT_EQ(numbers.Note(501), std::nullopt);
  EXPECT_EQ(numbers.Note(503), "sequence gap: 502 to 502 missing before 503");
  EXPECT_EQ(numbers.Note(504), std::nullopt);
  EXPECT_EQ(numbers.Note(504), "sequence back: 504 after 504");
  EXPECT_EQ(numbers.Note(505), std::nullopt);
}

TEST(SequenceNumbersTest, EachAgentHasItsOwn) {
  SequenceNumbers numbers;
  EXPECT_EQ(numbers.Note(500, "a"), std::nullopt);
  EXPECT_EQ(numbers.Note(7, "b"), std::nullopt);
  EXPECT_EQ(numbers.Note(501, "a"), std::nullopt);
  EXPECT_EQ(numbers.Note(9, "b"), "sequence gap: 8 to 8 missing before 9");
}

}  // namespace
}  // namespace zagent::e2e
