// Many agents on one receiver: who is known, by a file that changes and breaks, and what the others cost.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Gate.h"
#include "tools/agent-swarm/SwarmKeys.h"
#include "tools/reference-receiver/AgentKeys.h"
#include "tools/reference-receiver/UploadHandler.h"

namespace zagent::e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using tools::AgentKeys;

class KeysTest : public UploadFixture {
 protected:
  // As it is to be replaced: by a rename.
  std::string WriteKeys(const std::string& text, mode_t mode = 0600) const {
    const std::string part = folder_.Write("keys.part", text);
    EXPECT_EQ(0, chmod(part.c_str(), mode));
    std::filesystem::rename(part, folder_ / "keys");
    return folder_ / "keys";
  }
  std::unique_ptr<AgentKeys> Read(const std::string& file) {
    return std::make_unique<AgentKeys>(
        AgentKeys::Agent{}, file, [this](const std::string& line) { said_.push_back(line); }, clock_);
  }
  void ExpectRefused(const std::string& text, const std::string& reason, mode_t mode = 0600) {
    const std::string file = WriteKeys(text, mode);
    try {
      Read(file);
      ADD_FAILURE() << "it was read: " << text;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(reason)) << text;
    }
  }

  // An upload of an agent of this activation id; 0 is success.
  std::int32_t UploadOf(const std::string& customer, const std::string& agent, const std::string& activation,
                        const std::string& claimed_agent = "") {
    common::HttpUploader::Settings settings;
    settings.url = receiver_->GetUrl() + "/v1/fim";
    settings.customer_id = customer;
    settings.agent_id = claimed_agent.empty() ? agent : claimed_agent;
    settings.connection_timeout = 10;
    settings.request_timeout = 10;
    settings.max_attempts = 0;
    common::HttpUploader uploader(
        *service_,
        std::make_shared<common::HmacConfig>(customer, agent, activation, false, common::HmacVersion::HmacV1),
        settings);
    return uploader.Upload("application/json", BytesOf("{}"));
  }

  fakes::FakeClock clock_;
  std::vector<std::string> said_;
};

TEST_F(KeysTest, FindsEachAgentByItsKeyId) {
  const auto keys = Read(WriteKeys("# customers of the north\nc1 a2 x2\n\n  c1\ta1   x1\r\nc2 a3 x3!~"));
  EXPECT_EQ(3U, keys->Count());
  const auto found = keys->Find("a1");
  ASSERT_TRUE(found);
  EXPECT_EQ((tools::AgentIdentity{"c1", "a1"}), found->identity);
  EXPECT_EQ("x1", found->activation_id);
  EXPECT_EQ("x3!~", keys->Find("a3")->activation_id);
  for (const char* stranger : {"", "a", "a4", "c1", "x1", "a1 ", "#"}) EXPECT_FALSE(keys->Find(stranger)) << stranger;
}

TEST_F(KeysTest, StandsBesideASingleAgent) {
  const AgentKeys keys({{"c", "single"}, "x"}, WriteKeys("c1 a1 x1\n"), {}, clock_);
  EXPECT_EQ("x", keys.Find("single")->activation_id);
  EXPECT_EQ("x1", keys.Find("a1")->activation_id);
  EXPECT_THROW(AgentKeys({{"c", ""}, "x"}, folder_ / "keys", {}, clock_), std::invalid_argument);
  EXPECT_THROW(AgentKeys({}, "", {}, clock_), std::invalid_argument);
}

TEST_F(KeysTest, DoesNotBeginWithABrokenFile) {
  ExpectRefused("c1 a1\n", "line 1: not a customer id, an agent id and an activation id");
  ExpectRefused("c1 a1 x1 more\n", "line 1: not a customer id");
  ExpectRefused("c1 a1 x1\nc.1 a2 x2\n", "line 2: an id has other characters");
  ExpectRefused("c1 " + std::string(65, 'a') + " x1\n", "line 1: an id has other characters or is long");
  ExpectRefused("c1 a1 x\x01\n", "line 1: no activation id");
  ExpectRefused("c1 a1 x1\n# more\nc2 a1 x2\n", "line 3: the agent id of line 1");
  ExpectRefused(std::string("c1 a1 x1\n\0", 10), "line 2: ");
  ExpectRefused("c1 a1 x1\n", "open to others than its owner", 0640);
  EXPECT_THROW(Read(folder_ / "none"), std::runtime_error);
  EXPECT_THROW(Read(folder_.Path()), std::runtime_error);
  EXPECT_THROW(Read("/dev/zero"), std::runtime_error);
}

TEST_F(KeysTest, NeverShowsWhatTheFileHolds) {
  const std::string file = WriteKeys("c1 a1 secret more\n");
  try {
    Read(file);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), Not(HasSubstr("secret")));
  }
}

TEST_F(KeysTest, ReadsTheFileAgainWhenItHasChanged) {
  const auto keys = Read(WriteKeys("c1 a1 x1\n"));
  WriteKeys("c1 a2 x2\nc1 a3 x3\n");
  EXPECT_TRUE(keys->Find("a1")) << "it looks once a second";
  clock_.Advance(AgentKeys::kLookInterval);
  EXPECT_FALSE(keys->Find("a1"));
  EXPECT_TRUE(keys->Find("a2"));
  EXPECT_THAT(said_, ElementsAre("keys: 2 agents"));
}

TEST_F(KeysTest, KeepsTheAgentsThatItHasWhenTheFileBreaksAndSaysSoOnce) {
  const auto keys = Read(WriteKeys("c1 a1 x1\n"));
  WriteKeys("c1 a1\n");
  for (int i = 0; i < 5; ++i) {
    clock_.Advance(AgentKeys::kLookInterval);
    EXPECT_TRUE(keys->Find("a1"));
    EXPECT_FALSE(keys->Find("a2"));
  }
  EXPECT_THAT(said_, ElementsAre("error: keys file: line 1: not a customer id, an agent id and an activation id; the "
                                 "agents read before stay"));
  std::filesystem::remove(folder_ / "keys");
  for (int i = 0; i < 5; ++i) {
    clock_.Advance(AgentKeys::kLookInterval);
    EXPECT_TRUE(keys->Find("a1"));
  }
  EXPECT_THAT(said_, SizeIs(2));
  WriteKeys("c1 a2 x2\n", 0644);
  for (int i = 0; i < 5; ++i) {
    clock_.Advance(AgentKeys::kLookInterval);
    EXPECT_TRUE(keys->Find("a1"));
  }
  EXPECT_THAT(said_, SizeIs(3)) << "one line for each way in which it is broken";
  WriteKeys("c1 a2 x2\n");
  clock_.Advance(AgentKeys::kLookInterval);
  EXPECT_TRUE(keys->Find("a2"));
  EXPECT_FALSE(keys->Find("a1"));
}

std::size_t ResidentBytes() {
  std::ifstream in("/proc/self/statm");
  std::size_t pages = 0;
  in >> pages >> pages;
  return pages * 4096;
}

TEST_F(KeysTest, HoldsAHundredThousandAgentsInAHundredMegabytes) {
  const std::string file = folder_ / "keys";
  tools::WriteSwarmKeys(file, 100'000);
  const auto agents = tools::ReadSwarmKeys(file);
  const std::size_t before = ResidentBytes();
  const auto keys = Read(file);
  // Both the old ones and the new ones are there while it reads the file again.
  WriteKeys(folder_.Read("keys"));
  clock_.Advance(AgentKeys::kLookInterval);
  for (const auto& agent : agents) {
    const auto found = keys->Find(agent.agent_id);
    ASSERT_TRUE(found);
    ASSERT_EQ(agent.activation_id, found->activation_id);
  }
  EXPECT_EQ(100'000U, keys->Count());
  const std::size_t after = ResidentBytes();
  const std::size_t grown = after > before ? after - before : 0;
  RecordProperty("bytes_per_agent", static_cast<int>(grown / 100'000));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep what was freed, and books of it
  EXPECT_LT(grown, 100'000'000U);
#endif
}

TEST_F(KeysTest, AReceiverTakesEachAgentsUploadsByItsOwnKeys) {
  tools::ReceiverOptions options = Options();
  options.keys_file = WriteKeys("c1 a1 x1\nc2 a2 x2\n");
  StartReceiver(options);
  EXPECT_EQ(0, UploadOf("c1", "a1", "x1"));
  EXPECT_EQ(0, UploadOf("c2", "a2", "x2"));
  EXPECT_EQ(0, Upload("{}")) << "and the single one beside them";
  EXPECT_NE(0, UploadOf("c1", "a1", "x2"));
  EXPECT_NE(0, UploadOf("c2", "a1", "x1"));
  EXPECT_NE(0, UploadOf("c1", "a1", "x1", "a2")) << "in another's name";
  EXPECT_NE(0, UploadOf("c1", "a4", "x4"));
  const auto payloads = receiver_->GetPayloads();
  ASSERT_THAT(payloads, SizeIs(3));
  EXPECT_EQ((tools::AgentIdentity{"c1", "a1"}), payloads[0].sender);
  EXPECT_EQ((tools::AgentIdentity{"c2", "a2"}), payloads[1].sender);
  EXPECT_EQ((tools::AgentIdentity{kCustomer, kAgent}), payloads[2].sender);
}

TEST_F(KeysTest, AReceiverGoesOnWithItsAgentsWhileTheFileIsBroken) {
  tools::ReceiverOptions options = Options();
  options.keys_file = WriteKeys("c1 a1 x1\n");
  StartReceiver(options);
  EXPECT_EQ(0, UploadOf("c1", "a1", "x1"));
  WriteKeys("c1 a1 x1\nc2 a2\n");
  const std::string error = "error: keys file: line 2: not a customer id, an agent id and an activation id";
  const auto errors = [&] {
    const auto lines = Lines();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.starts_with("error: "); });
  };
  // It looks at the file by an upload.
  EXPECT_TRUE(fakes::Eventually([&] { return UploadOf("c1", "a1", "x1") == 0 && errors() > 0; }));
  EXPECT_THAT(Lines(), testing::Contains(testing::StartsWith(error)));
  WriteKeys("c1 a1 x1\nc2 a2 x2\n");
  EXPECT_TRUE(fakes::Eventually([&] { return UploadOf("c2", "a2", "x2") == 0; }));
  EXPECT_EQ(0, UploadOf("c1", "a1", "x1"));
  EXPECT_EQ(1, errors());
}

TEST_F(KeysTest, TwoReceiversShareOneFile) {
  tools::ReceiverOptions options = Options();
  options.keys_file = WriteKeys("c1 a1 x1\n");
  options.cert_folder = folder_ / "certificate";
  StartReceiver(options);
  auto other = std::move(receiver_);
  StartReceiver(options);
  EXPECT_EQ(0, UploadOf("c1", "a1", "x1"));
  std::swap(other, receiver_);
  EXPECT_EQ(0, UploadOf("c1", "a1", "x1"));
  WriteKeys("c1 a2 x2\n");
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(fakes::Eventually([&] { return UploadOf("c1", "a2", "x2") == 0; }));
    EXPECT_NE(0, UploadOf("c1", "a1", "x1"));
    std::swap(other, receiver_);
  }
}

TEST(RefusalLinesTest, SaysOfAFloodHowManyMoreThereWere) {
  fakes::FakeClock clock;
  tools::RefusalLines refusals(clock);
  std::size_t lines = 0;
  for (int i = 0; i < 1'000; ++i) lines += refusals.LinesFor("unknown key id").size();
  EXPECT_EQ(std::size_t{tools::RefusalLines::kMaxPerSecond}, lines);
  clock.Advance(std::chrono::seconds(1));
  EXPECT_THAT(refusals.LinesFor("malformed timestamp"),
              ElementsAre("rejected: 900 more", "rejected: malformed timestamp"));
  EXPECT_THAT(refusals.LinesFor("malformed timestamp"), ElementsAre("rejected: malformed timestamp"));
}

}  // namespace
}  // namespace zagent::e2e
