// How the running daemon ends: in order, and soon.

#include <gmock/gmock.h>

#include <csignal>

#include "tests/e2e/daemon/DaemonTest.h"

namespace zagent::e2e {
namespace {

using testing::HasSubstr;

constexpr const char* kExit = R"({"command": "exit"})";

// 0 when the text is not there.
int NumberBehind(const std::string& text, const std::string& in) {
  const std::size_t at = in.find(text);
  return at == std::string::npos ? 0 : std::stoi(in.substr(at + text.size()));
}

class EndTest : public DaemonTest {
 protected:
  void StartAnew() {
    daemon_.reset();
    agent_.reset();
    std::filesystem::remove_all(config_.Folder() / "log");
    StartDaemon();
    ASSERT_TRUE(LogComesToHold("IOChannel: Started.\n"));
    ASSERT_TRUE(Within(20s, [] { return RuleKeys().find("watched-folder\n") != std::string::npos; }));
  }

  [[nodiscard]] std::string ReadSpool() const {
    std::string all;
    for (const auto& file : std::filesystem::directory_iterator(config_.Spool())) {
      std::ifstream in(file.path());
      all.append(std::istreambuf_iterator<char>(in), {});
    }
    return all;
  }
};

TEST_F(EndTest, ASignalOrAnExitEndsItWithinTwoSeconds) {
  StartAnew();
  EXPECT_LT(TimeToEnd([this] { daemon_->Signal(SIGTERM); }), 2s);
  StartAnew();
  EXPECT_LT(TimeToEnd([this] { daemon_->Signal(SIGINT); }), 2s);
  StartAnew();
  EXPECT_LT(TimeToEnd([this] { agent_->Send(kExit); }), 2s);
}

TEST_F(EndTest, EachPartEndsBeforeWhatItStandsOn) {
  StartAnew();
  agent_->Send(kExit);
  ExpectOrderlyEnd();
  ExpectInOrder({"Command 'exit' received from agent.", "IOChannel: Exiting the event loop.",
                 "Stopping parsed events processing thread", "Stopping Audit Parser Thread",
                 "UnixClientStreamSockIOChannel: Stopping...", "UnixClientStreamSockIOChannel: Stopped.",
                 "[FIM]: Component destroyed.", "[IOC]: Ioc component destroyed.", "Scheduler: Stopping.",
                 "HTTP service stopped", "Destroying RuleEngine", "Scheduler: Removing all schedules."});
}

TEST_F(EndTest, WithIndicatorsOfCompromiseInForceASignalEndsItWithinTwoSecondsToo) {
  UseIndicatorsOfCompromise();
  StartAnew();
  ASSERT_TRUE(LogComesToHold("Added rule with ID ioc-files"));
  EXPECT_LT(TimeToEnd([this] { daemon_->Signal(SIGTERM); }), 2s);
  EXPECT_EQ(LogCount("[IOC]: Ioc component destroyed."), 1);
}

TEST_F(EndTest, AHangUpEndsNothing) {
  StartAnew();
  daemon_->Signal(SIGHUP);
  agent_->Send(R"({"command": "fim_status"})");
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(EndTest, ASignalDuringTheWaitForTheFirstCommandTakesEffectWhenTheStartIsOver) {
  StartProcess();
  ASSERT_TRUE(Within(20s, [this] { return !syslog_->Lines().empty(); }));
  EXPECT_THAT(syslog_->All(), HasSubstr("1 Waiting for configuration from the Ostrel Agent process.\n"));
  daemon_->Signal(SIGTERM);
  agent_->SendConfig(config_.File());
  ExpectOrderlyEnd();
  const std::string log = config_.ReadLog();
  const std::size_t started = log.find("KernelIOChannel: Started.");
  ASSERT_NE(started, std::string::npos) << "the start goes through to its end";
  EXPECT_LT(started, log.find("Stopping Audit Parser Thread"));
  EXPECT_EQ(LogCount("Uncaught exception"), 0);
}

TEST_F(EndTest, AnAgentThatIsGoneForTenSecondsAndComesBackCostsNothing) {
  StartAnew();
  const std::string rules = RuleKeys();
  agent_.reset();
  ASSERT_TRUE(Within(60s, [this] { return LogCount("Trying to reconnect... ") >= 11; }));
  MakeWatchedFolder("meanwhile");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_ = std::make_unique<TestAgent>();
  agent_->Send(R"({"command": "fim_status"})");
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  EXPECT_EQ(RuleKeys(), rules);
  EXPECT_EQ(LogCount("RuleEngine::AddRules: Adding 1 rules"), 2) << "the daemon's own and the manifest's, at the start";
  agent_->WaitForGap(300ms);
  EXPECT_LT(TimeToEnd([this] { agent_->Send(kExit); }), 2s);
}

TEST_F(EndTest, AnAgentThatStaysAwayForThirtyAttemptsEndsItInOrder) {
  StartAnew();
  agent_.reset();
  ASSERT_TRUE(LogComesToHold("Failed to establish communication with the Ostrel Agent process.", 90s));
  EXPECT_LT(TimeToEnd([] {}), 2s);
  EXPECT_EQ(LogCount("Trying to reconnect... "), 30);
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Aborting reconnection due to timeout."));
}

TEST_F(EndTest, AHundredThousandRestingFileEventsGetFiveSecondsMore) {
  // All must be in before the first has rested.
#if defined(__SANITIZE_THREAD__)
  constexpr int kEvents = 5'000;
#elif defined(__SANITIZE_ADDRESS__)
  constexpr int kEvents = 20'000;
#else
  constexpr int kEvents = 100'000;
#endif
  config_.WriteLogProperties("information");
  config_.Json()["edr_config"]["memory_limit"].SetUint(100);  // as many may rest
  UseDispatcher();
  StartAnew();
  const std::string file = config_.Watched() + "/resting";
  std::ofstream(file) << "abc";
  dispatcher_->CreatedFileOften(file, kEvents);
  MakeWatchedFolder("behind");
  ASSERT_TRUE(Within(60s, [this] { return SpoolFiles() != 0; }));
  EXPECT_THAT(ReadSpool(), testing::Not(HasSubstr(file))) << "none has left its rest";
  EXPECT_LT(TimeToEnd([this] { agent_->Send(kExit); }), 7s);
  EXPECT_THAT(ReadSpool(), HasSubstr(file)) << "the oldest are delivered";
  // All of them, unless the machine has something else to do; what is left then has rested, and is counted.
  const std::string log = config_.ReadLog();
  EXPECT_EQ(NumberBehind("events left at the stop: ", log), NumberBehind("No time left to deliver ", log));
}

}  // namespace
}  // namespace zagent::e2e
