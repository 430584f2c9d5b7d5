// What comes behind the stream: the consumer as a program, alone, several of one name, and with everything away.
#include <gmock/gmock.h>

#include <array>
#include <set>
#include <sstream>

#include "common/src/util/Json.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/e2e/fleet/StreamFixture.h"
#include "tools/event-stream/StreamMessage.h"
#include "tools/reference-consumer/MessageLines.h"

namespace zagent::e2e {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr const char* kDocument =
    R"({"events":[{"eventAction":"Write","imagePath":"/a","eventId":1}],"timestamp":"x"})";

class ConsumerTest : public StreamFixture {
 protected:
  // Begins to read; ends when nothing has come for so many seconds.
  std::unique_ptr<fakes::LineProcess> Consume(const std::vector<std::string>& further = {}, int idle = 2) {
    std::vector<std::string> command = {REFERENCE_CONSUMER, "--stream", server_.Url(), "--idle", std::to_string(idle)};
    command.insert(command.end(), further.begin(), further.end());
    return std::make_unique<fakes::LineProcess>(command);
  }
  // What a consumer printed but for what it says of itself.
  static std::vector<std::string> PrintedBy(fakes::LineProcess& consumer) {
    EXPECT_EQ(0, consumer.AwaitExit());
    std::istringstream in(consumer.Said());
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with("stream: ") && !line.starts_with("error: ")) lines.push_back(line);
    }
    return lines;
  }
  std::unique_ptr<tools::StreamSink> Sink() {
    auto sink = std::make_unique<tools::StreamSink>(StreamAt(server_), [](const std::string&) {});
    EXPECT_TRUE(fakes::Eventually([&] { return sink->MaxSize() != std::numeric_limits<std::size_t>::max(); }));
    return sink;
  }

  NatsServer server_;
};

TEST_F(ConsumerTest, PrintsTheLinesOfTheReceiver) {
  server_.Start();
  StartPublishing(server_);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  com::ostrel::ioc::model::proto::event::IoCEvent batch;
  batch.mutable_agent()->set_customerid(kCustomer);
  batch.mutable_agent()->set_agentid(kAgent);
  batch.set_sequenceno(7);
  batch.add_fileevent()->set_fullpath("/etc/shadow");
  ASSERT_EQ(200, StatusOf(kDocument));
  ASSERT_EQ(200, StatusOf(batch.SerializeAsString(),
                          std::string("/linuxagentevent/v1/customer/") + kCustomer + "/agent/" + kAgent,
                          "application/octet-stream"));
  ASSERT_EQ(200, StatusOf(R"({"status":[{"statusCode":4001,"contextId":"FIM","state":1}]})", "/v1/status"));
  ASSERT_EQ(200, StatusOf("no document", "/v1/fim", "text/plain"));
  std::vector<std::string> expected;
  for (const std::string& line : Lines()) {
    if (!line.starts_with("stream: ") && !line.starts_with("listening ")) expected.push_back(line);
  }
  ASSERT_THAT(expected, SizeIs(5));
  EXPECT_EQ(expected, PrintedBy(*Consume()));
}

TEST_F(ConsumerTest, HandsEachUploadOnAsALineOfJson) {
  server_.Start();
  const auto sink = Sink();
  sink->Add(Payload("{\n  \"events\": [1,\r\n 123456789012345678901234567890]}", "id-1"), {});
  sink->Add(Payload("\x01\xff", "id-2"), {});
  sink->Add(Payload("{\"a\":\"\xff\"}", "id-3"), {});
  const auto lines = PrintedBy(*Consume({"--json"}));
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[0], HasSubstr(R"("document":{   "events": [1,   123456789012345678901234567890]}})"));
  EXPECT_THAT(lines[1], HasSubstr(R"("payload":"Af8="})"));
  EXPECT_THAT(lines[2], HasSubstr(R"("payload":)")) << "what is not UTF-8 is no JSON";
  for (const std::string& line : lines) {
    rapidjson::Document document;
    common::util::ParseJson(document, line);
    ASSERT_FALSE(document.HasParseError()) << line;
    EXPECT_STREQ(kCustomer, common::util::FindMember(document, "customer")->GetString());
    EXPECT_STREQ(kAgent, common::util::FindMember(document, "agent")->GetString());
    EXPECT_STREQ("fim", common::util::FindMember(document, "kind")->GetString());
    EXPECT_STREQ("application/json", common::util::FindMember(document, "type")->GetString());
    EXPECT_EQ(20U, common::util::FindMember(document, "received")->GetStringLength());
  }
  EXPECT_THAT(lines[2], HasSubstr(R"("id":"id-3")"));
}

TEST_F(ConsumerTest, SeveralOfOneNameShareTheWork) {
  server_.Start();
  const auto sink = Sink();
  const auto first = Consume({"--json"}, 3);
  const auto second = Consume({"--json"}, 3);
  first->AwaitLine("stream: connected");
  second->AwaitLine("stream: connected");
  for (int i = 0; i < 200; ++i) sink->Add(Payload("{}", "id-" + std::to_string(i)), {});
  const auto of_first = PrintedBy(*first);
  const auto of_second = PrintedBy(*second);
  std::set<std::string> all(of_first.begin(), of_first.end());
  all.insert(of_second.begin(), of_second.end());
  EXPECT_EQ(200U, of_first.size() + of_second.size()) << "nothing twice";
  EXPECT_EQ(200U, all.size()) << "and nothing missed";
  EXPECT_FALSE(of_first.empty());
  EXPECT_FALSE(of_second.empty());
}

TEST_F(ConsumerTest, OneOfAnotherNameReadsEverythingForItself) {
  server_.Start();
  Sink()->Add(Payload("{}", "id-1"), {});
  EXPECT_THAT(PrintedBy(*Consume({"--name", "first"})), SizeIs(1));
  EXPECT_THAT(PrintedBy(*Consume({"--name", "first"})), SizeIs(0)) << "it goes on where it ended";
  EXPECT_THAT(PrintedBy(*Consume({"--name", "second"})), SizeIs(1));
}

TEST_F(ConsumerTest, ReadsOneCustomerAlone) {
  server_.Start();
  const auto sink = Sink();
  tools::AcceptedPayload other = Payload("{}", "id-1");
  other.sender.customer_id = "other";
  sink->Add(other, {});
  sink->Add(Payload("{}", "id-2"), {});
  EXPECT_THAT(PrintedBy(*Consume({"--name", "others", "--customer", "other", "--json"})),
              ElementsAre(HasSubstr(R"("id":"id-1")")));
}

TEST_F(ConsumerTest, ReadsAStreamOfSomeCustomersThatSomebodyElseHasMade) {
  server_.Start();
  tools::StreamOptions stream = StreamAt(server_);
  stream.name = "NORTH";
  {
    const tools::StreamSession session(stream);
    const std::string one = std::string("edr.") + kCustomer + ".>";
    std::array<const char*, 2> subjects{one.c_str(), "edr.other.>"};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = "NORTH";
    config.Subjects = subjects.data();
    config.SubjectsLen = subjects.size();
    jsStreamInfo* info = nullptr;
    jsErrCode code{};
    ASSERT_EQ(NATS_OK, js_AddStream(&info, session.JetStream(), &config, nullptr, &code));
    const tools::NatsPtr<jsStreamInfo> owned(info);
  }
  tools::StreamSink sink(stream, [](const std::string&) {});
  sink.Add(Payload("{}", "id-1"), {});
  EXPECT_THAT(PrintedBy(*Consume({"--stream-name", "NORTH", "--json"})), ElementsAre(HasSubstr(R"("id":"id-1")")));
}

TEST_F(ConsumerTest, AcknowledgesEverythingThatItHasPrinted) {
  server_.Start();
  const auto sink = Sink();
  for (int i = 0; i < 20; ++i) sink->Add(Payload("{}", "id-" + std::to_string(i)), {});
  EXPECT_THAT(PrintedBy(*Consume()), SizeIs(20));
  const tools::StreamSession session(StreamAt(server_));
  jsConsumerInfo* info = nullptr;
  jsErrCode code{};
  ASSERT_EQ(NATS_OK, js_GetConsumerInfo(&info, session.JetStream(), "EDR", "reference-consumer", nullptr, &code));
  EXPECT_EQ(js_AckExplicit, info->Config->AckPolicy);
  EXPECT_EQ(0, info->NumAckPending) << "nothing would come again";
  EXPECT_EQ(20U, info->AckFloor.Stream);
  jsConsumerInfo_Destroy(info);
}

TEST_F(ConsumerTest, AcknowledgesOnlyWhatItHasPrinted) {
  server_.Start();
  Sink()->Add(Payload("{}", "id-1"), {});
  fakes::LineProcess full(
      {"/bin/sh", "-c",
       std::string("exec ") + REFERENCE_CONSUMER + " --json --stream " + server_.Url() + " > /dev/full"});
  full.AwaitLine("reference-consumer: Cannot write the output");
  EXPECT_EQ(1, full.AwaitExit());
  EXPECT_THAT(PrintedBy(*Consume({"--json"})), ElementsAre(HasSubstr(R"("id":"id-1")")));
}

TEST_F(ConsumerTest, WhatOneThatDiedHasNotAcknowledgedComesToAnotherOfItsName) {
  server_.Start();
  const auto sink = Sink();
  for (int i = 0; i < 3; ++i) sink->Add(Payload("{}", "id-" + std::to_string(i)), {});
  const tools::StreamReader::Options shared{"shared", false, "edr.>", std::chrono::seconds(1)};
  {
    const tools::StreamConnection connection(StreamAt(server_), tools::StreamConnection::Stream::Require, {});
    ASSERT_NE(nullptr, connection.Await(fakes::kTestPatience));
    tools::StreamReader reader(connection, shared);
    const auto read = reader.Read(2, fakes::kTestPatience);
    ASSERT_THAT(read, SizeIs(2));
    ASSERT_EQ("id-1", read[1].Header(tools::kIdHeader)) << "it goes with both of them";
  }
  const tools::StreamConnection connection(StreamAt(server_), tools::StreamConnection::Stream::Require, {});
  ASSERT_NE(nullptr, connection.Await(fakes::kTestPatience));
  tools::StreamReader reader(connection, shared);
  std::multiset<std::string> ids;
  EXPECT_TRUE(fakes::Eventually([&] {
    const auto messages = reader.Read(10, std::chrono::milliseconds(200));
    for (const auto& message : messages) ids.insert(message.Header(tools::kIdHeader));
    EXPECT_TRUE(messages.empty() || reader.Acknowledge(messages));
    return ids.size() >= 3;
  }));
  EXPECT_THAT(ids, ElementsAre("id-0", "id-1", "id-2"));
  EXPECT_THAT(reader.Read(10, std::chrono::milliseconds(1'500)), SizeIs(0)) << "acknowledged is done with";
}

TEST_F(ConsumerTest, WaitsForAnEngineAndAStreamThatAreNotThereYet) {
  const auto consumer = Consume({"--json"}, 15);
  consumer->AwaitLine("error: stream: cannot connect");
  server_.Start();
  consumer->AwaitLine("error: stream: there is no stream EDR");
  const auto sink = Sink();
  sink->Add(Payload("{}", "id-1"), {});
  consumer->AwaitLine("{\"customer\"");
  server_.Kill();
  consumer->AwaitLine("error: stream: the connection is lost");
  server_.Start();
  EXPECT_TRUE(fakes::Eventually([&] {
    try {
      return sink->Add(Payload("{}", "id-2"), {});
    } catch (const std::runtime_error&) {
      return false;
    }
  }));
  const auto lines = PrintedBy(*consumer);
  // What it had printed comes twice when its acknowledgement was on the way to the server that was killed.
  const std::set<std::string> different(lines.begin(), lines.end());
  EXPECT_THAT(different, ElementsAre(HasSubstr("id-1"), HasSubstr("id-2")));
  EXPECT_LE(lines.size(), 3U);
}

TEST_F(ConsumerTest, SaysHowItIsUsed) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{}, {"--stream"}, {"--stream", "nats://x", "--idle", "0"}, {"--stream-size", "1"}}) {
    std::vector<std::string> command = {REFERENCE_CONSUMER};
    command.insert(command.end(), words.begin(), words.end());
    fakes::LineProcess consumer(command);
    EXPECT_EQ(2, consumer.AwaitExit());
    EXPECT_THAT(consumer.Said(), HasSubstr("Usage: reference-consumer"));
  }
}

}  // namespace
}  // namespace zagent::e2e
