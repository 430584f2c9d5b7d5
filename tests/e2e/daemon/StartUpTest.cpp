// How the daemon ends when it cannot start: each cause has its text and its exit code.

#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>

#include "common/src/util/Json.h"
#include "tests/e2e/daemon/ExampleConfig.h"
#include "tests/e2e/daemon/Sandbox.h"

namespace zagent::e2e {
namespace {

constexpr const char* kCouldNot = "Error: The ostrel-edr binary could not Initialize.";

class StartUpTest : public testing::Test {
 protected:
  StartUpTest() {
    EnterSandbox();
    syslog_ = std::make_unique<SyslogCapture>();
  }

  void ExpectSyslog(const std::vector<std::pair<int, std::string>>& expected) {
    const auto lines = syslog_->Lines();
    ASSERT_EQ(lines.size(), expected.size()) << syslog_->All();
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(lines[i].priority, expected[i].first) << lines[i].text;
      EXPECT_EQ(lines[i].text, expected[i].second);
    }
  }

  // Runs the daemon with `file` as its configuration and expects it to end with code 4 and `cause` in syslog.
  void ExpectRefused(const std::string& cause) {
    TestAgent agent;
    DaemonProcess daemon;
    agent.SendConfig(config_.File());
    EXPECT_EQ(daemon.WaitForExit(), 4);
    auto lines = syslog_->Lines();
    // The line that says that it waits comes only when the agent was slower.
    if (!lines.empty() && lines[0].text.rfind("Waiting for", 0) == 0) lines.erase(lines.begin());
    ASSERT_EQ(lines.size(), 2U) << syslog_->All();
    EXPECT_EQ(lines[0].text, cause);
    EXPECT_EQ(lines[0].priority, LOG_CRIT);
    EXPECT_EQ(lines[1].text, kCouldNot);
    EXPECT_EQ(lines[1].priority, LOG_CRIT);
  }

  ExampleConfig config_;
  std::unique_ptr<SyslogCapture> syslog_;
};

TEST_F(StartUpTest, WithoutAListeningAgentItEndsWith4) {
  DaemonProcess daemon;
  EXPECT_EQ(daemon.WaitForExit(), 4);
  ExpectSyslog({{LOG_ALERT, "IOChannel: Invalid data"}, {LOG_CRIT, kCouldNot}});
}

TEST_F(StartUpTest, WithoutAThreadForTheControlChannelItEndsWith4) {
  const TestAgent agent;
  DaemonProcess daemon({"OSTREL_E2E_FAIL=threads"});
  EXPECT_EQ(daemon.WaitForExit(), 4);
  ExpectSyslog({{LOG_ALERT, "Resource temporarily unavailable"}, {LOG_CRIT, kCouldNot}});
}

TEST_F(StartUpTest, WithoutAMessageWithin30SecondsItEndsWith4AndATermSignalDoesNotShortenTheWait) {
  const TestAgent agent;
  DaemonProcess daemon;
  const auto start = std::chrono::steady_clock::now();
  while (syslog_->Lines().empty()) usleep(10'000);
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(), 4);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(29));
  ExpectSyslog({{LOG_ALERT, "Waiting for configuration from the Ostrel Agent process."},
                {LOG_ALERT, "Failed to receive initial configuration from the Ostrel Agent process."},
                {LOG_CRIT, kCouldNot}});
}

TEST_F(StartUpTest, AMalformedFirstMessageEndsItWith4) {
  for (const char* message :
       {"{", "[]", "{}", R"({"command": "exit"})", R"({"command": "config", "config_file": 1})"}) {
    SCOPED_TRACE(message);
    TestAgent agent;
    DaemonProcess daemon;
    agent.Send(message);
    EXPECT_EQ(daemon.WaitForExit(), 4);
    EXPECT_NE(syslog_->All().find("2 Invalid json received from the agent.\n2 " + std::string(kCouldNot)),
              std::string::npos)
        << syslog_->All();
  }
}

TEST_F(StartUpTest, AMissingConfigurationFileEndsItWith4) {
  std::filesystem::remove(config_.File());
  ExpectRefused("Failed to read config file: " + config_.File());
}

TEST_F(StartUpTest, AConfigurationFileThatIsNoObjectEndsItWith4) {
  config_.WriteText("[1, 2]");
  ExpectRefused("Invalid configuration file.");
}

class MissingSectionTest : public StartUpTest, public testing::WithParamInterface<const char*> {};

TEST_P(MissingSectionTest, EndsItWith4) {
  config_.Json().RemoveMember(GetParam());
  config_.Write();
  ExpectRefused("Incomplete configuration file " + config_.File());
}

INSTANTIATE_TEST_SUITE_P(All, MissingSectionTest,
                         testing::Values("common_config", "fim_config", "ioc_config", "edr_config"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(StartUpTest, ASectionWithABadKeyEndsItWith4) {
  config_.Json()["common_config"].RemoveMember("agent_id");
  config_.Write();
  ExpectRefused("CommonConfig: Invalid json");
}

TEST_F(StartUpTest, ASectionOfIndicatorsWithoutItsKeysEndsItWith4) {
  config_.Json()["ioc_config"].RemoveMember("host_quarantined");
  config_.Write();
  ExpectRefused("Ioc::Config: Invalid json");
}

TEST_F(StartUpTest, AnOptionalKeyOfAnotherTypeEndsItWith4AndSyslogNamesIt) {
  const auto expect_named = [this](const char* key, const std::string& line) {
    SCOPED_TRACE(key);
    rapidjson::Value& section = config_.Json()["common_config"];
    section.AddMember(rapidjson::StringRef(key), 17, config_.Json().GetAllocator());
    config_.Write();
    TestAgent agent;
    DaemonProcess daemon;
    agent.SendConfig(config_.File());
    EXPECT_EQ(daemon.WaitForExit(), 4);
    section.RemoveMember(key);
    const auto lines = syslog_->Lines();
    ASSERT_GE(lines.size(), 3U) << syslog_->All();
    const auto* const last = &lines.back();
    EXPECT_TRUE(last[-2].text.ends_with("]: " + line)) << syslog_->All();
    EXPECT_EQ(last[-2].priority, LOG_CRIT);
    EXPECT_EQ(last[-1].text, "CommonConfig: Invalid json");
    EXPECT_EQ(last[0].text, kCouldNot);
  };
  expect_named("Blackout_Events", "Invalid Blackout_Events key, it should be array");
  expect_named("fedramp", "Invalid fedramp key, it should be boolean");
}

TEST_F(StartUpTest, AFimSectionWithoutAFileNameEndsItWith4) {
  config_.Json()["fim_config"].RemoveMember("event_file_name");
  config_.Write();
  ExpectRefused("Fim::Config: Invalid json");
}

TEST_F(StartUpTest, AnIntakeSectionWithABadKeyEndsItWith4) {
  config_.Json()["edr_config"].RemoveMember("cpu_limit");
  config_.Write();
  ExpectRefused("EDR::Config: Invalid json");
}

TEST_F(StartUpTest, WithoutTheAgentsPidItEndsWith4) {
  config_.Json().RemoveMember("host_warden_pid");
  config_.Write();
  ExpectRefused("Invalid host warden pid and path information");
}

TEST_F(StartUpTest, AnUnreadableLogConfigurationEndsItWith5) {
  std::filesystem::remove(config_.LogProperties());
  TestAgent agent;
  DaemonProcess daemon;
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 5);
  EXPECT_NE(syslog_->All().find("2 Error:ostrel-edr:log config is invalid.\n"), std::string::npos) << syslog_->All();
}

TEST_F(StartUpTest, ALogConfigurationWithABadLevelOrALoggerWithoutAChannelEndsItWith5) {
  config_.WriteLogProperties("deafening");
  const std::string no_channel = config_.Folder().Write(
      "no-channel.properties", "logging.loggers.l0.name = edr\nlogging.loggers.l0.level = trace\n");
  for (const std::string& file : {config_.LogProperties(), no_channel}) {
    SCOPED_TRACE(file);
    config_.Set("common_config", "log_config_file", file);
    config_.Write();
    TestAgent agent;
    DaemonProcess daemon;
    agent.SendConfig(config_.File());
    EXPECT_EQ(daemon.WaitForExit(), 5);
  }
}

TEST_F(StartUpTest, ADeeplyNestedQuietHoursTableIsReadLikeAnyOther) {
  config_.Json()["common_config"].AddMember("Blackout_Events", "here", config_.Json().GetAllocator());
  std::string text = common::util::WriteJson(config_.Json());
  text.replace(text.find("\"here\""), 6, std::string(1'000'000, '[') + std::string(1'000'000, ']'));
  config_.WriteText(text);
  TestAgent agent;
  DaemonProcess daemon({"OSTREL_E2E_FAIL=setgid"});  // the first step behind the configuration
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 7);
}

TEST_F(StartUpTest, AQuietHoursTableThatCannotBeReadEndsItInOrder) {
  for (const char* table : {R"([{"@ID": "FIM"}])", R"(["FIM"])",
                            R"([{"@ID": "FIM", "@NETWORK_BLACKOUT": "00", "@ACTIVITY_BLACKOUT": "00"}])"}) {
    SCOPED_TRACE(table);
    rapidjson::Document events;
    common::util::ParseJson(events, table);
    auto& section = config_.Json()["common_config"];
    section.RemoveMember("Blackout_Events");
    section.AddMember("Blackout_Events", rapidjson::Value(events, config_.Json().GetAllocator()),
                      config_.Json().GetAllocator());
    config_.Write();
    std::filesystem::remove_all(config_.Folder() / "log");
    TestAgent agent;
    DaemonProcess daemon;
    agent.SendConfig(config_.File());
    EXPECT_EQ(daemon.WaitForExit(), 0);
    const std::string log = config_.ReadLog();
    EXPECT_NE(log.find("Uncaught exception: The Blackout Settings Json is malformed"), std::string::npos) << log;
    EXPECT_NE(log.find("Shutting down EDR ..."), std::string::npos) << log;
  }
}

TEST_F(StartUpTest, IndicatorsThatCannotBeWatchedForEndItInOrder) {
  // No folder can be made below a file.
  config_.Folder().Write("taken", "a file");
  config_.Set("ioc_config", "event_file_path", config_.Folder() / "taken/spool");
  config_.Write();
  TestAgent agent;
  DaemonProcess daemon;
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 0);
  const std::string log = config_.ReadLog();
  EXPECT_NE(log.find("Uncaught exception: IocComponent: Failed to create " + (config_.Folder() / "taken/spool")),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("Shutting down EDR ..."), std::string::npos) << log;
}

TEST_F(StartUpTest, AFailedDetachingEndsItWith3) {
  DaemonProcess daemon({"OSTREL_E2E_FAIL=daemon"});
  EXPECT_EQ(daemon.WaitForExit(), 3);
  ExpectSyslog({{LOG_CRIT, "Error: The ostrel-edr binary could not run as a daemon."}});
}

TEST_F(StartUpTest, AFailedMallocThresholdEndsItWith6) {
  TestAgent agent;
  DaemonProcess daemon({"OSTREL_E2E_FAIL=mallopt"});
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 6);
  EXPECT_NE(config_.ReadLog().find("Error: edr: "), std::string::npos) << config_.ReadLog();
  EXPECT_NE(config_.ReadLog().find("Unable to set malloc threshold to 4MB"), std::string::npos) << config_.ReadLog();
}

TEST_F(StartUpTest, AFailedSetgidEndsItWith7) {
  TestAgent agent;
  DaemonProcess daemon({"OSTREL_E2E_FAIL=setgid"});
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 7);
  EXPECT_NE(config_.ReadLog().find("setgid() failed: Operation not permitted (1)"), std::string::npos)
      << config_.ReadLog();
}

TEST_F(StartUpTest, WithoutTheKernelsAuditItReportsTheCauseAndEndsInOrder) {
  TestAgent agent;
  DaemonProcess daemon({"OSTREL_E2E_FAIL=audit_open"});
  agent.SendConfig(config_.File());
  EXPECT_EQ(daemon.WaitForExit(), 0);
  const std::string log = config_.ReadLog();
  EXPECT_NE(log.find("Uncaught exception: Failed to open audit socket"), std::string::npos) << log;
  EXPECT_NE(log.find("Shutting down EDR ..."), std::string::npos) << log;
}

}  // namespace
}  // namespace zagent::e2e
