// The running daemon: from an audit record to the platform, under commands, failures and signals.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/e2e/daemon/DaemonTest.h"
#include "tools/reference-receiver/ReferenceReceiver.h"

namespace zagent::e2e {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr const char* kIntakeEnded = R"("intakeEnded":"audit channel: the scripted kernel has gone")";

class RunTest : public DaemonTest {
 protected:
  void OpenPlatform(tools::ReceiverOptions options = {}) {
    const rapidjson::Value& common = config_.Json()["common_config"];
    options.customer_id = common["customer_id"].GetString();
    options.agent_id = common["agent_id"].GetString();
    options.activation_id = common["activation_id"].GetString();
    options.ca_file = config_.Folder() / "ca.pem";
    options.keep_payloads = true;
    platform_ = std::make_unique<tools::ReferenceReceiver>(std::move(options));
    config_.Set("common_config", "service_url", platform_->GetUrl());
    config_.Set("common_config", "ca_cert_path", platform_->GetCaFile());
    config_.Write();
  }

  [[nodiscard]] std::string Received() const {
    std::string all;
    for (const auto& payload : platform_->GetPayloads()) all += payload.text + "\n";
    return all;
  }
  [[nodiscard]] bool PlatformComesToHold(const std::string& text, std::chrono::seconds time = 30s) const {
    return Within(time, [&] { return Received().find(text) != std::string::npos; });
  }
  // What is told of the intake's health, oldest first.
  [[nodiscard]] std::vector<std::string> IntakeStatuses() const {
    std::vector<std::string> rows = StatusRows();
    std::erase_if(rows, [](const std::string& row) { return !row.starts_with("4004 "); });
    return rows;
  }

  [[nodiscard]] int CountReceived(const std::string& path) const {
    int count = 0;
    for (const auto& payload : platform_->GetPayloads())
      count += payload.target.find(path) == std::string::npos ? 0 : 1;
    return count;
  }

  // The whole week of each module.
  static constexpr char kOpen = 'F';
  static constexpr char kClosed = '0';
  void SetQuietHours(char fim, char ioc) {
    const auto entry = [](const std::string& module, char network) {
      return R"({"@ID":")" + module + R"(","@NETWORK_BLACKOUT":")" + std::string(168, network) +
             R"(","@ACTIVITY_BLACKOUT":")" + std::string(168, kOpen) + R"("})";
    };
    rapidjson::Document& json = config_.Json();
    rapidjson::Document table(&json.GetAllocator());
    common::util::ParseJson(table, "[" + entry("FIM", fim) + "," + entry("IOC", ioc) + "]");
    json["common_config"].AddMember("Blackout_Events", table, json.GetAllocator());
    config_.Write();
  }

  // What an earlier run has left to be uploaded: a batch without events.
  void SpoolIocBatch() {
    com::ostrel::ioc::model::proto::event::IoCEvent batch;
    const rapidjson::Value& common = config_.Json()["common_config"];
    batch.mutable_agent()->set_customerid(common["customer_id"].GetString());
    batch.mutable_agent()->set_agentid(common["agent_id"].GetString());
    batch.mutable_agent()->set_computername("host");
    batch.mutable_agent()->set_boottime(1'600'000'000);
    batch.set_protofileid("6f9619ff-8b86-4011-b42d-00c04fc964ff");
    batch.set_sequenceno(1);
    std::filesystem::create_directory(IocSpool());
    std::filesystem::permissions(IocSpool(), std::filesystem::perms(0700));
    config_.Folder().Write("ioc-spool/ioc-events.0001", batch.SerializeAsString());
    config_.Set("ioc_config", "event_file_path", IocSpool());
    config_.Write();
  }
  [[nodiscard]] std::string IocSpool() const { return config_.Folder() / "ioc-spool"; }
  [[nodiscard]] std::size_t IocSpoolFiles() const {
    const std::filesystem::directory_iterator files(IocSpool());
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

  std::unique_ptr<tools::ReferenceReceiver> platform_;
};

TEST_F(RunTest, AFolderMadeInAWatchedFolderReachesThePlatformAndTheEndLeavesNoRules) {
  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(Within(10s, [] { return RuleKeys().find("watched-folder\n") != std::string::npos; })) << RuleKeys();
  EXPECT_THAT(RuleKeys(), HasSubstr("ostrel_ignore_rule_ostrel-edr\n"));
  MakeWatchedFolder("new");
  ASSERT_TRUE(PlatformComesToHold(config_.Watched() + "/new"));
  const std::string received = Received();
  EXPECT_THAT(received, HasSubstr(R"("eventAction":"Create")"));
  EXPECT_THAT(received, HasSubstr(R"("eventType":"Directory")"));
  EXPECT_THAT(received, HasSubstr(R"("associatedRules":["watched-folder"])"));
  EXPECT_THAT(received, HasSubstr(R"("actor":{"imagePath":"/usr/bin/mkdir","processID":4242,"userName":"root")"));
  EXPECT_TRUE(Within(10s, [this] { return SpoolFiles() == 0; })) << "an uploaded file is deleted";
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Command 'exit' received from agent."));
}

TEST_F(RunTest, AFileEventRestsUntilTheFileHasSettledAndCarriesWhatItThenHolds) {
  OpenPlatform();
  StartDaemon();
  const std::string file = config_.Watched() + "/settles";
  std::ofstream(file) << "before";
  audit_->CreatedFile(file);
  const auto start = std::chrono::steady_clock::now();
  std::ofstream(file) << "abc";
  ASSERT_TRUE(PlatformComesToHold(file, 60s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 29s);
  EXPECT_THAT(Received(), HasSubstr(R"("size":{"new":"0x3"})"));
  EXPECT_THAT(Received(), HasSubstr("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  daemon_->Signal(SIGTERM);
  ExpectOrderlyEnd();
}

TEST_F(RunTest, APlatformThatFailsTwiceLosesNothing) {
  tools::ReceiverOptions options;
  options.status = 503;
  options.status_requests = 2;
  options.only_for = "/fim/";
  OpenPlatform(std::move(options));
  StartDaemon();
  MakeWatchedFolder("patient");
  ASSERT_TRUE(PlatformComesToHold(config_.Watched() + "/patient", 60s));
  const std::string all = Received();
  EXPECT_EQ(all.find("\"events\""), all.rfind("\"events\"")) << "one upload of events";
  EXPECT_GE(platform_->GetRequestCount(), 3U);
  daemon_->Signal(SIGINT);
  ExpectOrderlyEnd();
}

TEST_F(RunTest, WhatWasSpooledBeforeAKillIsUploadedByTheNextStart) {
  StartDaemon();  // nobody listens where it uploads to
  MakeWatchedFolder("survivor");
  ASSERT_TRUE(Within(20s, [this] { return SpoolFiles() == 1; }));
  daemon_->Signal(SIGKILL);
  EXPECT_EQ(daemon_->WaitForExit(), 128 + SIGKILL);
  agent_.reset();

  OpenPlatform();
  StartDaemon();
  EXPECT_TRUE(PlatformComesToHold(config_.Watched() + "/survivor"));
  EXPECT_TRUE(Within(10s, [this] { return SpoolFiles() == 0; }));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, WhatIsInTheCacheAtTheEndIsFlushedToDisk) {
  config_.Json()["fim_config"]["max_file_age_sec"].SetUint(600);
  config_.Write();
  StartDaemon();
  MakeWatchedFolder("cached");
  ASSERT_TRUE(LogComesToHold("Event json written to disc successfully"));
  EXPECT_EQ(SpoolFiles(), 0U);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_EQ(SpoolFiles(), 1U);
}

TEST_F(RunTest, AKillBetweenTheAnswerAndTheDeletionLosesNothingAndCountsNothingTwice) {
  struct Printed {
    std::mutex mutex;
    std::string lines;
    bool Has(const std::string& text) {
      const std::lock_guard lock(mutex);
      return lines.find(text) != std::string::npos;
    }
  };
  const auto printed = std::make_shared<Printed>();
  tools::ReceiverOptions options;
  options.body_fault = tools::ReceiverOptions::BodyFault::Stall;
  options.body_fault_uploads = 1;
  options.only_for = "/fim/";
  options.print = [printed](const std::string& line) {
    const std::lock_guard lock(printed->mutex);
    printed->lines += line + "\n";
  };
  OpenPlatform(std::move(options));
  StartDaemon();
  MakeWatchedFolder("once");
  // The platform has said 200 and stored it, and the daemon still waits for the rest of the answer.
  ASSERT_TRUE(Within(60s, [&] { return printed->Has("answered: stalled in the body"); }));
  EXPECT_EQ(SpoolFiles(), 1U);
  daemon_->Signal(SIGKILL);
  EXPECT_EQ(daemon_->WaitForExit(), 128 + SIGKILL);
  agent_.reset();
  StartDaemon();
  MakeWatchedFolder("later");
  ASSERT_TRUE(PlatformComesToHold(config_.Watched() + "/later", 60s));
  EXPECT_TRUE(Within(10s, [this] { return SpoolFiles() == 0; }));
  EXPECT_TRUE(printed->Has("repeated: ")) << "it came again, under its own id";
  const std::string received = Received();
  const std::size_t first = received.find(config_.Watched() + "/once\"");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(received.find(config_.Watched() + "/once\"", first + 1), std::string::npos);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, AFileEventThatStillRestsAtTheEndIsSpooledAtOnce) {
  StartDaemon();
  const std::string file = config_.Watched() + "/unsettled";
  std::ofstream(file) << "abc";
  audit_->CreatedFile(file);
  MakeWatchedFolder("behind");  // what comes after the file has been processed, so the file rests
  ASSERT_TRUE(LogComesToHold("Event json written to disc successfully"));
  const auto start = std::chrono::steady_clock::now();
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s) << "nobody waits for its rest to end";
  EXPECT_EQ(LogCount("Event json written to disc successfully"), 2);
  EXPECT_EQ(SpoolFiles(), 1U);
  EXPECT_EQ(LogCount("Intake losses since the start: none"), 1);
}

TEST_F(RunTest, AFileThatIsGoneIsReportedAllTheSameWhenCoverageIsExtended) {
  ExtendCoverage();
  StartDaemon();
  const std::string file = config_.Watched() + "/fleeting";
  std::ofstream(file) << "abc";
  audit_->CreatedFile(file);
  std::filesystem::remove(file);
  MakeWatchedFolder("behind");
  ASSERT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_EQ(LogCount("Event json written to disc successfully"), 2);
}

TEST_F(RunTest, AnIntakeThatDiedIsStartedAnewWhenCoverageIsExtended) {
  ExtendCoverage();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  audit_->DropConsumer();
  ASSERT_TRUE(LogComesToHold("The audit intake has ended: audit channel: the scripted kernel has gone"));
  const int scans = LogCount("Folders known below the watched paths: ");
  audit_->AwaitConsumer();
  ASSERT_TRUE(Within(20s, [this] { return LogCount("KernelIOChannel: Started.") == 2; }));
  EXPECT_TRUE(Within(20s, [&] { return LogCount("Folders known below the watched paths: ") > scans; }))
      << "what was renamed meanwhile is looked for";
  MakeWatchedFolder("after");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  EXPECT_EQ(LogCount("The audit intake has ended"), 1);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_THAT(IntakeStatuses(), testing::Contains(HasSubstr(kIntakeEnded)).Times(1)) << "the gap is told";
}

TEST_F(RunTest, AnIntakeThatKeepsDyingEndsTheDaemonInOrder) {
  ExtendCoverage();
  StartDaemon();
  for (int death = 1; death <= 3; ++death) {
    ASSERT_TRUE(Within(20s, [&] { return LogCount("KernelIOChannel: Started.") == death; }));
    audit_->DropConsumer();
    if (death < 3) audit_->AwaitConsumer();
  }
  ExpectOrderlyEnd();
  EXPECT_EQ(LogCount("The audit intake has ended: "), 3);
  EXPECT_EQ(LogCount("Uncaught exception: The audit intake has ended three times within ten minutes"), 1);
  ASSERT_FALSE(IntakeStatuses().empty());
  EXPECT_THAT(IntakeStatuses().back(), HasSubstr(kIntakeEnded));
}

TEST_F(RunTest, WithoutExtendedCoverageADeadIntakeLeavesTheDaemonRunningWithoutEvents) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  audit_->DropConsumer();
  ASSERT_TRUE(LogComesToHold("The audit intake has ended: audit channel: the scripted kernel has gone"));
  EXPECT_FALSE(Within(7s, [this] { return audit_->IsWanted(); })) << "started anew";
  agent_->Send(R"({"command": "fim_status"})");
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  ASSERT_FALSE(IntakeStatuses().empty());
  EXPECT_THAT(IntakeStatuses().back(), HasSubstr(kIntakeEnded));
  EXPECT_THAT(IntakeStatuses(), testing::Contains(HasSubstr(kIntakeEnded)).Times(1)) << "once is enough";
}

TEST_F(RunTest, AMalformedManifestIsNamedAndTheDaemonGoesOn) {
  config_.WriteManifest("{ no json");
  StartDaemon();
  EXPECT_TRUE(LogComesToHold("Invalid manifest json format for: " + config_.Manifest()));
  EXPECT_TRUE(LogComesToHold("EventRuleManager: No rules to be added."));
  agent_->Send(R"({"command": "fim_status"})");
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, ANewManifestReplacesTheRulesInTheKernel) {
  StartDaemon();
  ASSERT_TRUE(Within(10s, [] { return RuleKeys().find("watched-folder\n") != std::string::npos; }));
  const std::string manifest = config_.Folder().Write("manifest-2.json", R"({"data": {"fim": {
      "policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "another-rule", "ruleType": "directory",
      "imagePath": ")" + config_.Watched() + R"(", "recursiveDepth": "none", "notify": ["create"]}]}}})");
  rapidjson::Value& entry = config_.Json()["fim_config"]["manifests"][0]["manifest_path"];
  entry.SetString(manifest, config_.Json().GetAllocator());
  config_.Write();
  agent_->SendConfig(config_.File());
  EXPECT_TRUE(Within(10s, [] { return RuleKeys().find("another-rule\n") != std::string::npos; })) << RuleKeys();
  EXPECT_THAT(RuleKeys(), testing::Not(HasSubstr("watched-folder")));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, ARefusedUpdateLeavesTheRunningConfiguration) {
  StartDaemon();
  config_.Json()["fim_config"].RemoveMember("event_file_name");
  config_.Write();
  agent_->SendConfig(config_.File());
  EXPECT_TRUE(LogComesToHold("Failed to update configuration: Fim::Config::Update: Invalid json"));
  EXPECT_THAT(RuleKeys(), HasSubstr("watched-folder\n"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, ABadLevelInTheLogFileEndsTheDaemonInOrder) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  config_.WriteLogProperties("deafening");
  agent_->SendConfig(config_.File());
  ExpectOrderlyEnd();
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Uncaught exception: "));
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Shutting down EDR ..."));
}

TEST_F(RunTest, WithoutAPlaceForItsSpoolItGoesOnWithoutFim) {
  config_.Set("fim_config", "event_file_path", config_.File() + "/spool");  // below a file
  config_.Write();
  StartDaemon();
  EXPECT_TRUE(LogComesToHold("Failed to start file integrity monitoring, going on without it: "));
  agent_->SendConfig(config_.File());
  EXPECT_TRUE(Within(
      20s, [this] { return LogCount("Failed to start file integrity monitoring, going on without it: ") == 2; }));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, WithADispatcherItReadsThereAndLeavesTheKernelsConsumerAlone) {
  UseDispatcher();
  StartDaemon();
  MakeWatchedFolder("dispatched");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  EXPECT_FALSE(audit_->IsWanted());
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, AfterTheDispatcherCameBackTheRulesAreBuiltAnew) {
  UseDispatcher();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("Added rule with ID watched-folder"));
  dispatcher_->DropConsumer();
  dispatcher_->AwaitConsumer();
  EXPECT_TRUE(Within(20s, [this] { return LogCount("Added rule with ID watched-folder") == 2; }));
  MakeWatchedFolder("after");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, RulesThatCannotBeBuiltAnewAreAnErrorAndTheDaemonGoesOn) {
  UseDispatcher();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("DispatcherIOChannel: Started."));
  std::ofstream("/run/refuse").close();
  dispatcher_->DropConsumer();
  dispatcher_->AwaitConsumer();
  EXPECT_TRUE(LogComesToHold("Failed to invalidate the RuleEngine"));
  std::filesystem::remove("/run/refuse");
  MakeWatchedFolder("after");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, AStopDuringACommandIsHonouredOnceTheCommandIsDone) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  const std::string manifest = config_.Folder().Write("manifest-2.json", R"({"data": {"fim": {
      "policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "another-rule", "ruleType": "directory",
      "imagePath": ")" + config_.Watched() + R"(", "recursiveDepth": "none", "notify": ["create"]}]}}})");
  rapidjson::Value& entry = config_.Json()["fim_config"]["manifests"][0]["manifest_path"];
  entry.SetString(manifest, config_.Json().GetAllocator());
  config_.Write();
  std::ofstream("/run/hold").close();
  agent_->SendConfig(config_.File());
  ASSERT_TRUE(Within(20s, [this] { return LogCount("RuleEngine::AddRules: Adding 1 rules") == 3; }));
  daemon_->Signal(SIGTERM);
  std::filesystem::remove("/run/hold");
  ExpectOrderlyEnd();
  const std::string log = config_.ReadLog();
  const std::size_t done = log.find("Component::UpdateConfig: Configuration updated");
  ASSERT_NE(done, std::string::npos);
  EXPECT_LT(done, log.find("Stopping Audit Parser Thread"));
}

TEST_F(RunTest, AnHmacVersionThatIsNotSupportedIsReplaced) {
  config_.Json()["common_config"].AddMember("hmac_version", "V3", config_.Json().GetAllocator());
  config_.Json()["common_config"].AddMember("fedramp", true, config_.Json().GetAllocator());
  OpenPlatform();
  StartDaemon();
  EXPECT_TRUE(LogComesToHold("Warning: edr: "));
  EXPECT_TRUE(LogComesToHold("EDR subprocess only supports HmacV1/V2 - using HmacV1"));
  MakeWatchedFolder("signed");
  EXPECT_TRUE(PlatformComesToHold(config_.Watched() + "/signed"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, StartUpReportsItsQuietStepsInTheLog) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  EXPECT_EQ(LogCount("M_MMAP_THRESHOLD: 4MB"), 1);
  EXPECT_EQ(LogCount("Setting the proxy environment variables"), 1);
  EXPECT_EQ(LogCount("EDR subprocess only supports"), 0);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
}

TEST_F(RunTest, EachPartStartsBehindWhatItStandsOn) {
  config_.Json()["common_config"].AddMember("hmac_version", "V3", config_.Json().GetAllocator());
  config_.Write();
  StartDaemon();
  EXPECT_TRUE(LogComesToHold("Memory threshold: softLimit: "));
  EXPECT_TRUE(LogComesToHold("AHSUploadSchedule:Execute() triggered"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  const std::string quiet_hours = "Reduced Activity Period(RAP) Window settings populated successfully.";
  ExpectInOrder({"M_MMAP_THRESHOLD: 4MB", "Scheduler: Starting.", "EDR subprocess only supports HmacV1/V2",
                 "Setting the proxy environment variables", quiet_hours,
                 "SqlStorage: Opening " + (config_.Folder() / "EDRStatus.db"), "[FIM]: Component initialized.",
                 quiet_hours, "[IOC]: Component initialized.", "[EDR]: AHSUploadSchedule:Execute() triggered .. "});
  ExpectInOrder({"[IOC]: Component initialized.", "KernelIOChannel: Starting...", "KernelIOChannel: Started.",
                 "Memory threshold: softLimit: "});
}

TEST_F(RunTest, AnUploadThatHangsDoesNotDelayTheEnd) {
  tools::ReceiverOptions options;
  options.delay = 60s;
  OpenPlatform(std::move(options));
  config_.Json()["common_config"]["request_timeout"].SetUint(60);
  config_.Write();
  StartDaemon();
  MakeWatchedFolder("stuck");
  ASSERT_TRUE(LogComesToHold(" to: " + platform_->GetUrl() + "/fim/"));
  EXPECT_LT(TimeToEnd([this] { agent_->Send(R"({"command": "exit"})"); }), 2s);
  EXPECT_EQ(SpoolFiles(), 1U);
}

TEST_F(RunTest, UploadsGoThroughTheProxyThatTheConfigurationNames) {
  tools::ReceiverOptions options;
  options.proxy_port = 0;
  OpenPlatform(std::move(options));
  rapidjson::Document& json = config_.Json();
  json["common_config"]["environment_variables"].AddMember(
      "ostrel_https_proxy", rapidjson::Value(platform_->GetProxyUrl(), json.GetAllocator()), json.GetAllocator());
  config_.Write();
  StartDaemon();
  MakeWatchedFolder("by-proxy");
  EXPECT_TRUE(PlatformComesToHold(config_.Watched() + "/by-proxy"));
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_GE(platform_->GetTunnelCount(), 1U);
  EXPECT_GE(platform_->GetTunnelCount(), platform_->GetConnectionCount()) << "none came another way";
}

TEST_F(RunTest, QuietHoursOfFileIntegrityMonitoringLeaveIndicatorsOfCompromiseAlone) {
  SetQuietHours(kClosed, kOpen);
  SpoolIocBatch();
  OpenPlatform();
  StartDaemon();
  MakeWatchedFolder("kept");
  ASSERT_TRUE(Within(20s, [this] { return SpoolFiles() == 1; }));
  EXPECT_TRUE(Within(20s, [this] { return IocSpoolFiles() == 0; }));
  EXPECT_EQ(CountReceived("/linuxagentevent/"), 1);
  EXPECT_FALSE(Within(3s, [this] { return SpoolFiles() == 0; })) << "three times its interval";
  EXPECT_EQ(CountReceived("/fim/"), 0);
  EXPECT_EQ(LogCount("RAP: Module FIM has no open Network slot in the whole week."), 1);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_EQ(SpoolFiles(), 1U);
}

TEST_F(RunTest, QuietHoursOfIndicatorsOfCompromiseLeaveFileIntegrityMonitoringAlone) {
  SetQuietHours(kOpen, kClosed);
  SpoolIocBatch();
  OpenPlatform();
  StartDaemon();
  MakeWatchedFolder("sent");
  EXPECT_TRUE(PlatformComesToHold(config_.Watched() + "/sent"));
  EXPECT_TRUE(Within(10s, [this] { return SpoolFiles() == 0; }));
  EXPECT_FALSE(Within(3s, [this] { return IocSpoolFiles() == 0; })) << "three times its interval";
  EXPECT_EQ(CountReceived("/linuxagentevent/"), 0);
  EXPECT_EQ(LogCount("RAP: Module IOC has no open Network slot in the whole week."), 1);
  agent_->Send(R"({"command": "exit"})");
  ExpectOrderlyEnd();
  EXPECT_EQ(IocSpoolFiles(), 1U);
}

}  // namespace
}  // namespace zagent::e2e
