// What the page remembers, and where it forgets.
#include "tools/reference-receiver/PageFeed.h"

#include <gmock/gmock.h>

#include <sstream>

#include "common/src/util/Json.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/fakes/FakeClock.h"

namespace zagent::tools {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::Not;

constexpr std::size_t kAll = 1UL << 40U;
const std::string kFim = "/v1/fim/events";
const std::string kStatus = "/v1/customer/c/agent/a/status";
const std::string kIoc = "/linuxagentevent/v1/customer/c/agent/a";

std::string Event(const std::string& path) {
  return R"({"eventAction":"Create","imagePath":")" + path + R"("})";
}
std::string Document(std::size_t count, const std::string& path = "/w/file") {
  std::string events;
  for (std::size_t i = 0; i < count; ++i) events += (i == 0 ? "" : ",") + Event(path);
  return R"({"events":[)" + events + "]}";
}

class PageFeedTest : public ::testing::Test {
 protected:
  struct Process {
    std::string id;
    int pid = 0;
    std::string parent_id;
    int parent_pid = 0;
    std::string path;
  };

  static void Start(wire::IoCEvent& batch, const Process& process) {
    wire::ProcessEvent& event = *batch.add_processevent();
    event.set_eventaction(wire::RUNNING);
    event.set_uniqueid(process.id);
    event.set_processid(process.pid);
    event.set_parentprocessid(process.parent_pid);
    event.set_imagepath(process.path);
    event.set_arguments(process.path + " argument");
    event.set_username("alice");
    event.mutable_actor()->set_uniqueprocessid(process.parent_id);
    event.mutable_actor()->set_processid(process.parent_pid);
  }
  static void File(wire::IoCEvent& batch, const std::string& path, const Process& actor) {
    wire::FileEvent& event = *batch.add_fileevent();
    event.set_eventaction(wire::CREATE);
    event.set_fullpath(path);
    event.mutable_actor()->set_uniqueprocessid(actor.id);
    event.mutable_actor()->set_processid(actor.pid);
    event.mutable_actor()->set_imagepath(actor.path);
    event.mutable_actor()->set_username("root");
  }
  void Send(wire::IoCEvent& batch, const std::string& agent = "a") {
    batch.mutable_agent()->set_computername("host-of-" + agent);
    batch.set_sequenceno(++sequence_);
    feed_.OnUpload(agent, kIoc, batch.SerializeAsString());
    batch.Clear();
  }

  // The numbers and a member of all events.
  std::vector<std::string> Members(const char* name) {
    const PageFeed::Portion portion = feed_.EventsFrom(0, kAll);
    rapidjson::Document json;
    common::util::ParseJson(json, portion.json);
    EXPECT_FALSE(json.HasParseError()) << portion.json;
    std::vector<std::string> members;
    for (const rapidjson::Value& event : json.GetArray()) {
      const rapidjson::Value* member = common::util::FindMember(event, name);
      members.push_back(member == nullptr ? "-" : common::util::WriteJson(*member));
    }
    return members;
  }
  // "pid path" of who acted and its ancestors, of the last event.
  std::string Ancestry() {
    const std::string json = Members("ancestry").back();
    rapidjson::Document chain;
    common::util::ParseJson(chain, json);
    std::ostringstream text;
    for (const rapidjson::Value& process : chain.GetArray()) {
      text << (text.str().empty() ? "" : " < ") << process["pid"].GetInt64() << " " << process["path"].GetString();
    }
    return text.str();
  }
  std::string Book(const char* name) {
    rapidjson::Document json;
    common::util::ParseJson(json, feed_.Books());
    const rapidjson::Value* member = common::util::FindMember(json, name);
    return member == nullptr ? "-" : common::util::WriteJson(*member);
  }
  std::string Rates(const char* kind) {
    rapidjson::Document json;
    common::util::ParseJson(json, feed_.Books());
    const auto rates = json["rates"][kind].GetArray();
    EXPECT_EQ(PageFeed::kRateSteps, rates.Size());
    std::string text;
    for (rapidjson::SizeType i = rates.Size() - 3; i < rates.Size(); ++i)
      text += std::to_string(rates[i].GetUint64()) + " ";
    return text;
  }

  fakes::FakeClock clock_;
  PageFeed feed_{clock_};
  std::uint64_t sequence_ = 0;
};

TEST_F(PageFeedTest, EventsAreNumberedFromOneAndTellWhoSentThem) {
  feed_.OnUpload("agent-1", kFim, Document(2));
  feed_.OnUpload("agent-2", kFim, Document(1));
  EXPECT_THAT(Members("n"), ElementsAre("1", "2", "3"));
  EXPECT_THAT(Members("agent"), ElementsAre("\"agent-1\"", "\"agent-1\"", "\"agent-2\""));
  EXPECT_EQ("1700000000000", Members("received").front());
  EXPECT_EQ(4U, feed_.NextNumber());
}

TEST_F(PageFeedTest, AReaderGoesOnWhereItWas) {
  feed_.OnUpload("a", kFim, Document(5));
  const PageFeed::Portion first = feed_.EventsFrom(0, 1);
  EXPECT_EQ(2U, first.next);
  EXPECT_THAT(first.json, AllOf(HasSubstr("\"n\":1,"), Not(HasSubstr("\"n\":2,"))));
  EXPECT_EQ(6U, feed_.EventsFrom(first.next, kAll).next);
  const PageFeed::Portion nothing = feed_.EventsFrom(6, kAll);
  EXPECT_TRUE(nothing.is_empty);
  EXPECT_EQ("[]", nothing.json);
  EXPECT_EQ(6U, feed_.EventsFrom(1000, kAll).next) << "a number that nobody has had yet";
}

TEST_F(PageFeedTest, TheLastTenThousandAreKeptAndTheOthersCounted) {
  for (int i = 0; i < 101; ++i) feed_.OnUpload("a", kFim, Document(100));
  const std::vector<std::string> numbers = Members("n");
  EXPECT_EQ(PageFeed::kMaxEvents, numbers.size());
  EXPECT_EQ("101", numbers.front());
  EXPECT_EQ("10100", numbers.back());
  EXPECT_EQ("100", Book("forgotten"));
  EXPECT_EQ("10100", Book("fim"));
}

TEST_F(PageFeedTest, LargeEventsAreKeptByTheirBytes) {
  const std::string path(4000, 'x');
  for (int i = 0; i < 100; ++i) feed_.OnUpload("a", kFim, Document(100, path));
  const PageFeed::Portion all = feed_.EventsFrom(0, kAll);
  EXPECT_THAT(all.json.size(), Le(PageFeed::kMaxBytes + PageFeed::kMaxEvents));
  EXPECT_NE("0", Book("forgotten"));
  EXPECT_EQ(10'001U, all.next);
}

TEST_F(PageFeedTest, AnEventHasAllAncestorsOfWhoActed) {
  wire::IoCEvent batch;
  Start(batch, {"init", 1, "", 0, "/sbin/init"});
  Start(batch, {"shell", 20, "init", 1, "/bin/sh"});
  Send(batch);
  // The start of the program stands behind the file in the message.
  File(batch, "/tmp/tool", {"copy", 21, "", 0, "/bin/cp"});
  Start(batch, {"copy", 21, "shell", 20, "/bin/cp"});
  Send(batch);
  EXPECT_EQ("21 /bin/cp < 20 /bin/sh < 1 /sbin/init", Ancestry());
  EXPECT_THAT(Members("ancestry").back(), HasSubstr(R"("user":"root","arguments":"/bin/cp argument")"));
}

TEST_F(PageFeedTest, TheProgramIsTheOneThatActedThoughTheProcessRunsAnotherNow) {
  wire::IoCEvent batch;
  Start(batch, {"first", 20, "", 1, "/bin/sh"});
  File(batch, "/tmp/file", {"second", 20, "", 0, "/bin/cat"});
  Send(batch);
  EXPECT_EQ("20 /bin/cat < 1 ", Ancestry());
  EXPECT_THAT(Members("ancestry").back(), Not(HasSubstr("argument\"")));
}

TEST_F(PageFeedTest, AncestryIsThatOfTheSameAgent) {
  wire::IoCEvent batch;
  Start(batch, {"shell", 20, "", 1, "/bin/sh"});
  Send(batch, "one");
  File(batch, "/tmp/file", {"other", 20, "", 0, "/bin/cat"});
  Send(batch, "two");
  EXPECT_EQ("20 /bin/cat", Ancestry());
}

TEST_F(PageFeedTest, ProcessesThatAreEachOthersParentsEndTheAncestry) {
  wire::IoCEvent batch;
  Start(batch, {"a", 20, "b", 21, "/bin/a"});
  Start(batch, {"b", 21, "a", 20, "/bin/b"});
  File(batch, "/tmp/file", {"a", 20, "", 0, "/bin/a"});
  Send(batch);
  const std::string chain = Ancestry();
  EXPECT_EQ(PageFeed::kMaxAncestors - 1, static_cast<std::size_t>(std::count(chain.begin(), chain.end(), '<')));
}

TEST_F(PageFeedTest, OldStartsAreForgottenAtTheBound) {
  wire::IoCEvent batch;
  Start(batch, {"oldest", 1, "", 0, "/bin/oldest"});
  for (std::size_t i = 0; i < PageFeed::kMaxProcesses; ++i) {
    Start(batch, {"p" + std::to_string(i), static_cast<int>(i) + 2, "", 0, "/bin/p"});
  }
  Send(batch);
  File(batch, "/tmp/file", {"other", 1, "", 0, "/bin/cat"});
  Send(batch);
  EXPECT_EQ("1 /bin/cat", Ancestry());
  File(batch, "/tmp/file", {"p0", 2, "", 0, ""});
  Send(batch);
  EXPECT_EQ("2 /bin/p", Ancestry());
}

TEST_F(PageFeedTest, AnIdThatIsTooLongToBeKeptIsThatOfNobody) {
  const std::string longest(128, 'x');
  const std::string too_long(129, 'x');
  wire::IoCEvent batch;
  Start(batch, {longest, 20, "", 0, "/bin/known"});
  Start(batch, {too_long, 21, longest, 20, "/bin/unknown"});
  Send(batch);
  File(batch, "/tmp/file", {"", 21, "", 0, "/bin/cat"});
  Send(batch);
  EXPECT_EQ("21 /bin/cat", Ancestry());
  Start(batch, {"child", 22, too_long, 20, "/bin/child"});
  File(batch, "/tmp/file", {"child", 22, "", 0, ""});
  Send(batch);
  EXPECT_EQ("22 /bin/child < 20 /bin/known", Ancestry()) << "its pid still tells who it was";
}

TEST_F(PageFeedTest, AProcessThatIsItsOwnParentEndsTheAncestry) {
  wire::IoCEvent batch;
  Start(batch, {"strange", 20, "strange", 20, "/bin/strange"});
  File(batch, "/tmp/file", {"strange", 20, "", 0, "/bin/strange"});
  Send(batch);
  EXPECT_EQ("20 /bin/strange", Ancestry());
}

TEST_F(PageFeedTest, AForgottenStartLeavesItsPidToWhoHasItNow) {
  wire::IoCEvent batch;
  Start(batch, {"oldest", 20, "", 0, "/bin/oldest"});
  Start(batch, {"newer", 20, "", 0, "/bin/newer"});
  for (std::size_t i = 1; i < PageFeed::kMaxProcesses; ++i) {
    Start(batch, {"p" + std::to_string(i), static_cast<int>(i) + 20, "", 0, "/bin/p"});
  }
  Send(batch);
  File(batch, "/tmp/file", {"", 20, "", 0, ""});
  Send(batch);
  EXPECT_EQ("20 /bin/newer", Ancestry());
}

TEST_F(PageFeedTest, FileEventsOfAnAgentHaveTheNameOfItsMachineOnceABatchHasToldIt) {
  wire::IoCEvent batch;
  Send(batch, "a");
  feed_.OnUpload("a", kFim, Document(1));
  feed_.OnUpload("b", kFim, Document(1));
  EXPECT_THAT(Members("host"), ElementsAre("\"host-of-a\"", "\"\""));
}

TEST_F(PageFeedTest, TheBooksTellWhatCameAndWhatWasRefused) {
  feed_.OnUpload("a", kFim, Document(2));
  feed_.OnUpload("a", kFim, "no document");
  feed_.OnRepeated();
  feed_.OnRefused("signature does not match");
  feed_.OnRefused("payload is not LZMA: one reason");
  feed_.OnRefused("payload is not LZMA: another reason");
  EXPECT_EQ("2", Book("uploads"));
  EXPECT_EQ("1", Book("repeated"));
  EXPECT_EQ("1", Book("unreadable"));
  EXPECT_EQ(R"({"payload is not LZMA":2,"signature does not match":1})", Book("refused"));
  EXPECT_THAT(Book("agents"), HasSubstr(R"("agent":"a","host":"","uploads":2,"fim":2)"));
}

TEST_F(PageFeedTest, LossesAreAddedUpByReason) {
  for (int i = 0; i < 2; ++i) {
    feed_.OnUpload("a", kStatus, R"({"status":[{"statusCode":4004,"additionalFields":{"kernelLost":3}}]})");
  }
  EXPECT_EQ(R"({"kernelLost":6})", Book("lost"));
  EXPECT_EQ("2", Book("health"));
}

TEST_F(PageFeedTest, ASumThatHasNoRoomStaysAtItsMost) {
  const std::string most = R"({"status":[{"statusCode":4004,"additionalFields":{"kernelLost":18446744073709551615}}]})";
  for (int i = 0; i < 2; ++i) feed_.OnUpload("a", kStatus, most);
  EXPECT_EQ(R"({"kernelLost":18446744073709551615})", Book("lost"));
}

TEST_F(PageFeedTest, ReasonsBeyondTheBoundAreTheOthers) {
  for (std::size_t i = 0; i < PageFeed::kMaxReasons + 5; ++i) feed_.OnRefused("reason " + std::to_string(i));
  EXPECT_THAT(Book("refused"), HasSubstr(R"("other":5)"));
}

TEST_F(PageFeedTest, MissingSequenceNumbersAreLostBatches) {
  wire::IoCEvent batch;
  Send(batch);
  sequence_ += 3;
  Send(batch);
  sequence_ = 0;  // an agent that begins anew has lost nothing
  Send(batch);
  EXPECT_EQ("3", Book("lostBatches"));
}

TEST_F(PageFeedTest, ABatchThatComesLateIsCountedAsMissingOnceAtTheMost) {
  wire::IoCEvent batch;
  for (const std::uint64_t number : {1, 3, 2, 4}) {
    sequence_ = number - 1;
    Send(batch);
  }
  EXPECT_EQ("1", Book("lostBatches")) << "2 was missing when 3 came";
}

TEST_F(PageFeedTest, TheAgentThatWasSilentForLongestIsForgottenAtTheBound) {
  for (std::size_t i = 0; i < PageFeed::kMaxAgents; ++i)
    feed_.OnUpload("agent-" + std::to_string(i), kFim, Document(1));
  feed_.OnUpload("agent-0", kFim, Document(1));
  feed_.OnUpload("one more", kFim, Document(1));
  EXPECT_EQ(std::to_string(PageFeed::kMaxAgents + 1), Book("agentCount"));
  feed_.OnUpload("agent-0", kFim, Document(1));
  EXPECT_THAT(Book("agents"), HasSubstr(R"("agent":"agent-0","host":"","uploads":3)"));
}

TEST_F(PageFeedTest, RatesAreCountedByStepAndPassWithTime) {
  feed_.OnUpload("a", kFim, Document(4));
  clock_.Advance(PageFeed::kRateStep);
  feed_.OnUpload("a", kFim, Document(2));
  EXPECT_EQ("0 4 2 ", Rates("fim"));
  clock_.Advance(PageFeed::kRateStep);
  EXPECT_EQ("4 2 0 ", Rates("fim"));
  clock_.SetWall(-std::chrono::hours(1));
  feed_.OnUpload("a", kFim, Document(1));
  EXPECT_EQ("0 4 3 ", Rates("fim")) << "a clock that was set back counts where it was";
  clock_.SetWall(std::chrono::hours(10));
  EXPECT_EQ("0 0 0 ", Rates("fim"));
}

TEST_F(PageFeedTest, TheLastRowsOfHealthAreKept) {
  for (std::size_t i = 0; i < PageFeed::kMaxHealth + 1; ++i) {
    feed_.OnUpload("a", kStatus, R"({"status":[{"statusCode":4001,"contextId":"row )" + std::to_string(i) + R"("}]})");
  }
  EXPECT_THAT(feed_.Health(), AllOf(Not(HasSubstr("\"row 0\"")), HasSubstr("\"row 1\""), HasSubstr("\"row 200\"")));
  EXPECT_EQ(PageFeed::kMaxHealth + 1, feed_.HealthVersion());
}

TEST_F(PageFeedTest, ARowThatSaysNothingIsARowAllTheSame) {
  feed_.OnUpload("a", kStatus, R"({"status":[{}]})");
  EXPECT_EQ(R"([{"agent":"a","host":"","received":1700000000000}])", feed_.Health());
}

TEST_F(PageFeedTest, TheListenerHearsOfEverything) {
  int heard = 0;
  feed_.SetListener([&] { ++heard; });
  feed_.OnUpload("a", kFim, Document(1));
  feed_.OnRepeated();
  feed_.OnRefused("x");
  EXPECT_EQ(3, heard);
  feed_.SetListener({});
  feed_.OnRepeated();
  EXPECT_EQ(3, heard);
}

}  // namespace
}  // namespace zagent::tools
