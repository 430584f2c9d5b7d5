// The agent's commands as they come over the socket: framed by quiet gaps, during other commands, and unusable ones.

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>

#include "tests/e2e/daemon/DaemonTest.h"

namespace zagent::e2e {
namespace {

using testing::HasSubstr;

constexpr const char* kFimStatus = R"({"command": "fim_status"})";
constexpr const char* kIocStatus = R"({"command": "ioc_status"})";
constexpr const char* kExit = R"({"command": "exit"})";
constexpr const char* kReceived = "Received configuration data from the Ostrel Agent process: ";
constexpr const char* kInvalid = "Invalid json received from the agent.";

class CommandsTest : public DaemonTest {
 protected:
  // A `config` that stays in the kernel until ReleaseConfig.
  void HoldConfig() {
    std::ofstream("/run/hold").close();
    agent_->SendConfig(WriteConfigWithRule("held"));
    // The start adds the daemon's own rule and that of the manifest.
    ASSERT_TRUE(Within(20s, [this] { return LogCount("RuleEngine::AddRules: Adding 1 rules") == 3; }));
  }
  static void ReleaseConfig() { std::filesystem::remove("/run/hold"); }

  [[nodiscard]] static bool InForce(const std::string& id) {
    return Within(20s, [&] { return RuleKeys().find(id + "\n") != std::string::npos; });
  }

  static std::string Padded(const std::string& command, std::size_t size) {
    std::string text = R"({"command": ")" + command + R"(", "padding": ")";
    text.append(size - text.size() - 2, 'x');
    return text + "\"}";
  }
};

TEST_F(CommandsTest, OfThreeCommandsDuringAConfigTheThirdIsInForceInTheEnd) {
  StartDaemon();
  ASSERT_TRUE(InForce("watched-folder"));
  const auto begin = std::chrono::steady_clock::now();
  HoldConfig();
  agent_->SendConfig(WriteConfigWithRule("first"));
  agent_->WaitForGap(300ms);
  agent_->SendConfig(WriteConfigWithRule("second"));
  agent_->WaitForGap(300ms);
  agent_->SendConfig(WriteConfigWithRule("third"));
  agent_->WaitForGap(300ms);
  ASSERT_TRUE(Within(20s, [&] { return std::chrono::steady_clock::now() - begin > 2s; }));
  EXPECT_EQ(LogCount(kReceived), 2) << "the control lock is not free";
  ReleaseConfig();
  EXPECT_TRUE(InForce("third")) << RuleKeys();
  EXPECT_EQ(LogCount("Command 'config' received from agent"), 2) << "of those that came meanwhile, the newest only";
  EXPECT_EQ(LogCount(kInvalid), 0);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, AnExitDuringAConfigIsNotLost) {
  StartDaemon();
  ASSERT_TRUE(InForce("watched-folder"));
  HoldConfig();
  agent_->Send(kFimStatus);
  agent_->WaitForGap(300ms);
  agent_->Send(kIocStatus);
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  agent_->WaitForGap(300ms);
  ReleaseConfig();
  ExpectOrderlyEnd();
  EXPECT_EQ(LogCount(kInvalid), 0);
}

TEST_F(CommandsTest, TwoWritesShortlyAfterEachOtherAreOneCommand) {
  StartDaemon();
  // A busy machine may let too much time pass between the two: then the attempt says nothing.
  for (int attempt = 0; attempt < 20; ++attempt) {
    agent_->WaitForGap(300ms);
    agent_->Send(R"({"command": "fim_)");
    const auto first = std::chrono::steady_clock::now();
    agent_->WaitForGap(40ms);
    agent_->Send(R"(status"})");
    if (std::chrono::steady_clock::now() - first < 55ms) break;
    ASSERT_LT(attempt, 19) << "the machine is too busy for this test";
  }
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, WritesWithAGapBetweenThemAreTwoCommands) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  agent_->Send(kFimStatus);
  agent_->WaitForGap(200ms);
  agent_->Send(kIocStatus);
  EXPECT_TRUE(LogComesToHold("Command 'ioc_status' received from agent"));
  EXPECT_EQ(LogCount(kReceived), 3);
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, WithoutAGapTwoCommandsAreOneTextThatIsRefused) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  agent_->Send(std::string(kFimStatus) + kExit);
  EXPECT_TRUE(LogComesToHold(kInvalid));
  EXPECT_EQ(LogCount("Command 'fim_status'"), 0);
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, ACommandOf65536BytesIsRead) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  agent_->Send(Padded("fim_status", 65'536));
  EXPECT_TRUE(LogComesToHold("Command 'fim_status' received from agent"));
  EXPECT_EQ(LogCount(kReceived), 2);
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, ALargerOneIsSplitAndItsPiecesAreRefused) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  agent_->Send(Padded("fim_status", 65'537));
  // The second piece is the closing bracket.
  EXPECT_TRUE(LogComesToHold(std::string(kReceived) + "}\n"));
  EXPECT_TRUE(LogComesToHold(kInvalid));
  agent_->WaitForGap(300ms);
  agent_->Send(kIocStatus);
  EXPECT_TRUE(LogComesToHold("Command 'ioc_status' received from agent"));
  EXPECT_EQ(LogCount("Command 'fim_status'"), 0);
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, EveryKindOfBrokenFileLeavesTheRunningConfigurationInForce) {
  StartDaemon();
  ASSERT_TRUE(InForce("watched-folder"));
  // Without its flaw each of them would put the rule "broken" into force.
  const std::string complete = config_.Folder().Read(std::filesystem::path(WriteConfigWithRule("broken")).filename());
  const std::string file = config_.Folder() / "to-be-broken.json";
  const auto expect_refused = [&](const std::string& line) {
    SCOPED_TRACE(line);
    const int before = LogCount(line);
    agent_->WaitForGap(300ms);
    agent_->SendConfig(file);
    EXPECT_TRUE(Within(20s, [&] { return LogCount(line) == before + 1; }));
    EXPECT_THAT(RuleKeys(), HasSubstr("watched-folder\n"));
    EXPECT_THAT(RuleKeys(), testing::Not(HasSubstr("broken")));
  };
  const auto write_bent = [&](const std::function<void(rapidjson::Document&)>& bend) {
    rapidjson::Document json;
    common::util::ParseJson(json, complete);
    bend(json);
    std::ofstream(file) << common::util::WriteJson(json);
  };

  expect_refused("Failed to read config file: " + file);
  std::filesystem::create_directory(file);
  expect_refused("Failed to read config file: " + file);
  std::filesystem::remove(file);
  for (const char* text : {"", "[]", "{\"common_config\": ", "null"}) {
    std::ofstream(file) << text;
    expect_refused("Invalid configuration file.");
  }
  for (const char* key : {"common_config", "fim_config", "ioc_config", "host_warden_pid", "host_warden_path"}) {
    write_bent([&](rapidjson::Document& json) { json.RemoveMember(key); });
    expect_refused("Incomplete configuration file: " + file);
    write_bent([&](rapidjson::Document& json) { json[key].SetArray(); });
    expect_refused("Incomplete configuration file: " + file);
  }
  write_bent([](rapidjson::Document& json) { json["fim_config"].RemoveMember("upload_interval"); });
  expect_refused("Failed to update configuration: Fim::Config::Update: Invalid json");
  write_bent([](rapidjson::Document& json) { json["fim_config"]["manifests"].SetObject(); });
  expect_refused("Failed to update configuration: Fim::Config::Update: Invalid json");

  write_bent([](rapidjson::Document& json) { json["ioc_config"].RemoveMember("upload_interval"); });
  agent_->WaitForGap(300ms);
  agent_->SendConfig(file);
  EXPECT_TRUE(LogComesToHold("Failed to update configuration: Ioc::Config::Update: Invalid json"));
  EXPECT_TRUE(InForce("broken")) << "the section in front of it was applied";

  MakeWatchedFolder("still-watched");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, MonitoringThatCouldNotStartIsStartedByALaterConfig) {
  // No folder can be made below a file.
  config_.Folder().Write("taken", "a file");
  rapidjson::Document& json = config_.Json();
  json["fim_config"]["event_file_path"].SetString(config_.Folder() / "taken/spool", json.GetAllocator());
  config_.Write();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("Failed to start file integrity monitoring, going on without it: "));

  agent_->WaitForGap(300ms);
  agent_->SendConfig(WriteConfigWithRule("still-in-vain"));
  EXPECT_TRUE(Within(
      20s, [this] { return LogCount("Failed to start file integrity monitoring, going on without it: ") == 2; }));
  EXPECT_THAT(RuleKeys(), testing::Not(HasSubstr("still-in-vain")));

  std::filesystem::remove(config_.Folder() / "taken");
  agent_->WaitForGap(300ms);
  agent_->SendConfig(WriteConfigWithRule("now"));
  EXPECT_TRUE(InForce("now"));
  MakeWatchedFolder("watched-now");
  EXPECT_TRUE(LogComesToHold("Event json written to disc successfully"));
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, AConfigNeedsNoIntakeSection) {
  StartDaemon();
  ASSERT_TRUE(InForce("watched-folder"));
  config_.Json().RemoveMember("edr_config");
  agent_->SendConfig(WriteConfigWithRule("without-intake"));
  EXPECT_TRUE(InForce("without-intake"));
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, ALogFolderThatVanishesEndsNothing) {
  StartDaemon();
  ASSERT_TRUE(InForce("watched-folder"));
  std::filesystem::remove_all(config_.Folder() / "log");
  agent_->SendConfig(WriteConfigWithRule("unheard"));
  EXPECT_TRUE(InForce("unheard"));
  agent_->WaitForGap(300ms);
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, ALogPropertyFileThatVanishedEndsTheDaemonInOrder) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  std::filesystem::remove(config_.LogProperties());
  agent_->SendConfig(config_.File());
  ExpectOrderlyEnd();
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Uncaught exception: "));
  EXPECT_THAT(config_.ReadLog(), HasSubstr("Shutting down EDR ..."));
}

TEST_F(CommandsTest, WhatTheControlChannelSaidBeforeThereWasALogStandsAtItsBeginning) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  const std::string log = config_.ReadLog();
  const std::size_t connected = log.find("UnixClientStreamSockIOChannel: Connected.");
  const std::size_t received = log.find(kReceived);
  EXPECT_LT(connected, received) << log;
  EXPECT_LT(received, log.find("M_MMAP_THRESHOLD: 4MB")) << log;
  EXPECT_LT(log.find("M_MMAP_THRESHOLD: 4MB"), log.size()) << log;
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, TheKernelMakesNoHugePagesOfWhatTheAllocatorHoldsHereAndThere) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  std::ifstream in("/proc/" + std::to_string(daemon_->Pid()) + "/status");
  const std::string status{std::istreambuf_iterator<char>(in), {}};
  EXPECT_THAT(status, HasSubstr("\nTHP_enabled:\t0\n"));
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

TEST_F(CommandsTest, EveryThreadSaysInProcWhatItDoes) {
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("KernelIOChannel: Started."));
  const auto all_are_there = testing::IsSupersetOf({"edr-main", "edr-control", "edr-audit", "edr-parser", "edr-events",
                                                    "edr-folders", "edr-ioc", "edr-sched", "edr-http"});
  std::vector<std::string> names;
  const auto read_names = [&] {
    names.clear();
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_->Pid()) + "/task")) {
      std::ifstream in(task.path() / "comm");
      names.emplace_back();
      std::getline(in, names.back());
    }
#if defined(__SANITIZE_THREAD__)
    // The sanitizer has threads of its own, by the name that their maker had then.
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::erase(names, "ostrel-edr-scri");
#endif
    // The components begin behind the log's line, and a thread bears the name of its maker while it starts.
    return testing::Matches(all_are_there)(names) && std::count(names.begin(), names.end(), "edr-main") == 1 &&
           std::count(names.begin(), names.end(), "ostrel-edr-scri") == 0;
  };
  EXPECT_TRUE(Within(20s, read_names)) << testing::PrintToString(names);
  EXPECT_THAT(names, all_are_there);
  EXPECT_THAT(names, testing::Each(testing::StartsWith("edr-")));
  agent_->Send(kExit);
  ExpectOrderlyEnd();
}

}  // namespace
}  // namespace zagent::e2e
