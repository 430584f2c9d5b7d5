// The swarm's own honesty: its documents are those of the daemon, and its account tells lost and doubled ones.
#include <gmock/gmock.h>

#include <filesystem>
#include <set>

#include "tests/e2e/fleet/StreamFixture.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tools/agent-swarm/PreparedDocuments.h"
#include "tools/agent-swarm/SpoolDocument.h"
#include "tools/agent-swarm/Swarm.h"
#include "tools/json-schema/JsonSchema.h"

namespace zagent::e2e {
namespace {

using std::chrono::microseconds;
using ::testing::SizeIs;

TEST(SpoolDocumentTest, IsADocumentAsTheDaemonSendsThem) {
  std::mt19937_64 random(7);
  for (const std::size_t size : {std::size_t{0}, std::size_t{2'048}, std::size_t{102'400}}) {
    const auto document = tools::MakeSpoolDocument(size, random);
    EXPECT_GE(document.size(), size);
    EXPECT_LT(document.size(), size + 1'000);
    EXPECT_EQ(std::nullopt, tools::FindSchemaFault("fim-upload", std::string(document.begin(), document.end())));
  }
  EXPECT_NE(tools::MakeSpoolDocument(0, random), tools::MakeSpoolDocument(0, random));
}

TEST(PreparedDocumentsTest, GiveWhatTheDaemonsOwnCompressionMakesOfThem) {
  std::mt19937_64 random(7);
  tools::PreparedDocuments prepared;
  prepared.Add(2'048, 20, random);
  prepared.Add(4'096, 3, random);
  std::set<std::vector<unsigned char>> different;
  for (int i = 0; i < 500; ++i) different.insert(prepared.OneOf(2'048, random));
  EXPECT_THAT(different, SizeIs(20));
  for (const auto& document : different) {
    EXPECT_LT(document.size(), 4'000U);
    EXPECT_EQ(common::LzmaCompression().Compress(document), prepared.Compress(document));
  }
  EXPECT_EQ(prepared.OneOf(4'096, random).size() / 4'096, 1U);
  const std::vector<unsigned char> foreign = {'{', '}'};
  EXPECT_EQ(foreign, prepared.Decompress(prepared.Compress(foreign)));
  EXPECT_THROW((void)prepared.OneOf(1, random), std::out_of_range);
}

TEST(SwarmAccountTest, CountsWhatIsLostAndWhatIsDoubled) {
  std::vector<tools::SwarmUpload> uploads(4);
  for (std::size_t i = 0; i < uploads.size(); ++i) uploads[i].id = std::to_string(i);
  const auto account = tools::Account(uploads, {"0", "2", "2", "somebody else's", "2", "", "3"});
  EXPECT_EQ(3U, account.stored);
  EXPECT_EQ(1U, account.lost);
  EXPECT_EQ(2U, account.doubled);
}

TEST(PercentileTest, IsTheValueThatSoManyDoNotExceed) {
  std::vector<microseconds> values;
  for (int i = 100; i >= 1; --i) values.emplace_back(i);
  EXPECT_EQ(microseconds(50), tools::Percentile(values, 50));
  EXPECT_EQ(microseconds(99), tools::Percentile(values, 99));
  EXPECT_EQ(microseconds(100), tools::Percentile(values, 100));
  EXPECT_EQ(microseconds(7), tools::Percentile({microseconds(7)}, 1));
  EXPECT_EQ(microseconds(0), tools::Percentile({}, 50));
}

class SwarmTest : public StreamFixture {
 protected:
  tools::SwarmOptions Swarm(unsigned agents) {
    tools::WriteSwarmKeys(folder_ / "keys", agents);
    tools::SwarmOptions swarm;
    swarm.agents = tools::ReadSwarmKeys(folder_ / "keys");
    swarm.ca_file = folder_ / "ca.pem";
    swarm.duration = std::chrono::seconds(3);
    swarm.patience = std::chrono::seconds(10);
    swarm.senders = 4;
    swarm.documents = 8;
    return swarm;
  }
};

TEST_F(SwarmTest, EveryUploadOfManyAgentsIsInTheStreamOnce) {
  NatsServer server("max_payload: 8388608\n");
  server.Start();
  tools::SwarmOptions swarm = Swarm(7);
  swarm.repeated_percent = 50;
  swarm.patience = std::chrono::minutes(1);  // an engine on a busy disk answers late
  swarm.per_second = 100;                    // a stream has room for so many
  tools::ReceiverOptions options = PublishingTo(StreamAt(server));
  options.keys_file = folder_ / "keys";
  StartReceiver(options);
  ASSERT_TRUE(AwaitLine("stream: connected to "));
  swarm.url = receiver_->GetUrl();
  const auto result = tools::RunSwarm(swarm);
  ASSERT_GE(result.uploads.size(), 7U);
  EXPECT_EQ(0U, result.refused_repeats);
  const auto account = tools::CountInStream(StreamAt(server), result.uploads);
  EXPECT_EQ(result.uploads.size(), account.stored);
  EXPECT_EQ(0U, account.lost);
  EXPECT_EQ(0U, account.doubled);
  EXPECT_GT(CountLines("repeated: "), 0U);
  EXPECT_LE(receiver_->GetConnectionCount(), std::max<std::size_t>(swarm.senders, result.uploads.size() / 10))
      << "connections are kept";
  std::set<std::string> subjects;
  for (const auto& message : ReadAll(StreamAt(server))) subjects.insert(message.subject);
  EXPECT_THAT(subjects, SizeIs(7)) << "every agent has sent";
}

TEST_F(SwarmTest, AnUploadComesUntilItIsAccepted) {
  tools::SwarmOptions swarm = Swarm(1);
  tools::ReceiverOptions options = Options();
  options.keys_file = folder_ / "keys";
  options.status = 503;
  options.status_requests = 2;
  StartReceiver(options);
  swarm.url = receiver_->GetUrl();
  swarm.senders = 1;
  swarm.further_attempts = 0;
  swarm.small_percent = 100;
  swarm.repeated_percent = 100;
  swarm.documents = 0;
  unsigned begun = 0;
  swarm.on_begin = [&] { ++begun; };
  swarm.duration = std::chrono::seconds(1);
  const auto result = tools::RunSwarm(swarm);
  ASSERT_FALSE(result.uploads.empty());
  EXPECT_EQ(3U, result.uploads[0].tries);
  EXPECT_EQ(0U, result.refused_repeats);
  for (const auto& upload : result.uploads) EXPECT_TRUE(upload.is_accepted && upload.is_repeated);
  EXPECT_EQ(result.uploads.size(), receiver_->GetPayloads().size()) << "each is kept once";
  EXPECT_EQ(1U, begun);
  EXPECT_GT(result.processor.count(), 0);
}

TEST_F(SwarmTest, EachAgentSignsByItsOwnKeyIdAndEverySecondByTheOtherVersion) {
  tools::SwarmOptions swarm = Swarm(4);
  fakes::FakeHttpServer platform({fakes::FakeHttpServer::Answer("200 OK")});
  swarm.url = platform.Url("");
  swarm.ca_file = "";
  swarm.per_second = 20;
  swarm.duration = std::chrono::seconds(1);
  ASSERT_GE(tools::RunSwarm(swarm).uploads.size(), 4U);
  std::set<std::string> who;
  for (const auto& request : platform.Requests()) {
    const std::string authorization = request.Header("X-OSTL-Authorization");
    who.insert(authorization.substr(0, authorization.rfind(':')));
  }
  std::set<std::string> expected;
  for (std::size_t i = 0; i < swarm.agents.size(); ++i) {
    expected.insert((i % 2 == 0 ? "ZHmacV2Auth " : "ZHmacV1Auth ") + swarm.agents[i].agent_id);
  }
  EXPECT_EQ(expected, who);
}

TEST_F(SwarmTest, ARepeatThatIsRefusedIsCounted) {
  tools::SwarmOptions swarm = Swarm(1);
  fakes::FakeHttpServer platform({fakes::FakeHttpServer::Answer("200 OK"), fakes::FakeHttpServer::Answer("503 Busy")});
  swarm.url = platform.Url("");
  swarm.ca_file = "";
  swarm.senders = 1;
  swarm.further_attempts = 0;
  swarm.repeated_percent = 100;
  swarm.duration = std::chrono::seconds(1);
  swarm.patience = std::chrono::seconds(0);
  const auto result = tools::RunSwarm(swarm);
  ASSERT_THAT(result.uploads, SizeIs(1));
  EXPECT_TRUE(result.uploads[0].is_accepted && result.uploads[0].is_repeated);
  EXPECT_EQ(1U, result.refused_repeats);
}

TEST_F(SwarmTest, MoreConnectionsThanThreadsAllHaveTheirTurn) {
  tools::SwarmOptions swarm = Swarm(16);
  tools::ReceiverOptions options = Options();
  options.keys_file = folder_ / "keys";
  options.max_threads = 2;
  StartReceiver(options);
  swarm.url = receiver_->GetUrl();
  swarm.senders = 16;
  swarm.small_percent = 100;
  const auto result = tools::RunSwarm(swarm);
  std::vector<microseconds> latencies;
  for (const auto& upload : result.uploads) {
    EXPECT_TRUE(upload.is_accepted);
    latencies.push_back(upload.latency);
  }
  ASSERT_GE(result.uploads.size(), 16U);
  EXPECT_LT(tools::Percentile(latencies, 100), std::chrono::seconds(10));
}

}  // namespace
}  // namespace zagent::e2e
