#include "src/edr/host/CommandHandler.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

// Notes what a command changed, in order; one step can be told to fail.
class RecordingTarget final : public CommandTarget {
 public:
  std::vector<std::string> steps;
  std::function<void(const std::string&)> on_step = [](const std::string&) {};

  void ReloadLogLevels() override { Step("log"); }
  void UpdateFim(const rapidjson::Value& section) override { Step("fim " + common::util::WriteJson(section)); }
  void UpdateIoc(const rapidjson::Value& section) override { Step("ioc " + common::util::WriteJson(section)); }
  void UpdateAgentIdentity(const AgentIdentity& identity) override {
    Step("agent " + std::to_string(identity.pid) + " " + identity.path);
  }
  void Exit() override { Step("exit"); }

 private:
  void Step(const std::string& step) {
    on_step(step);
    steps.push_back(step);
  }
};

constexpr const char* kComplete =
    R"({"common_config": {}, "fim_config": {"a": 1}, "ioc_config": {"b": 2}, "host_warden_pid": 77, "host_warden_path": "/w"})";

class CommandHandlerTest : public testing::Test {
 protected:
  void HandleConfig(const std::string& file_text) {
    const std::string file = folder_.Write("edr.json", file_text);
    handler_.Handle(R"({"command": "config", "config_file": ")" + file + "\"}");
  }

  fakes::TempFolder folder_;
  fakes::LogCapture log_;
  RecordingTarget target_;
  CommandHandler handler_{target_};
};

using Steps = std::vector<std::string>;

TEST_F(CommandHandlerTest, ConfigAppliesLogLevelsThenTheComponentsThenTheAgentsIdentity) {
  HandleConfig(kComplete);
  EXPECT_EQ(target_.steps, (Steps{"log", R"(fim {"a":1})", R"(ioc {"b":2})", "agent 77 /w"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Command 'config' received from agent"));
}

TEST_F(CommandHandlerTest, ConfigDoesNotAskForTheIntakeSection) {
  HandleConfig(kComplete);  // it has no edr_config
  EXPECT_EQ(log_.Count("Incomplete"), 0);
}

TEST_F(CommandHandlerTest, StatusCommandsOnlyLog) {
  handler_.Handle(R"({"command": "fim_status"})");
  handler_.Handle(R"({"command": "ioc_status"})");
  EXPECT_TRUE(target_.steps.empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Command 'fim_status' received from agent"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Command 'ioc_status' received from agent"));
}

TEST_F(CommandHandlerTest, ExitMayCarryExtraMembers) {
  handler_.Handle(R"({"command": "exit", "reason": [1, 2]})");
  EXPECT_EQ(target_.steps, Steps{"exit"});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Command 'exit' received from agent."));
}

TEST_F(CommandHandlerTest, AnUnknownWordIsNamed) {
  handler_.Handle(R"({"command": "reboot"})");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Invalid command found in json received from agent: reboot"));
  EXPECT_TRUE(target_.steps.empty());
}

TEST_F(CommandHandlerTest, WhatIsNoCommandIsOneErrorLine) {
  for (const std::string& text :
       {std::string("{}"), std::string(R"({"command": 5})"), std::string("[]"), std::string("{"), std::string(""),
        std::string(R"({"command":"exit"}{"command":"exit"})"), std::string(1'000'000, '[')}) {
    const fakes::LogCapture log;
    handler_.Handle(text);
    EXPECT_EQ(log.Count("Invalid json received from the agent."), 1) << text.substr(0, 40);
    EXPECT_EQ(log.Lines().size(), 1U);
  }
  EXPECT_TRUE(target_.steps.empty());
}

TEST_F(CommandHandlerTest, ConfigWantsAFileName) {
  handler_.Handle(R"({"command": "config", "config_file": 1})");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Incomplete 'config' command received from the agent"));
}

TEST_F(CommandHandlerTest, AVanishedFileLeavesTheRunningConfiguration) {
  handler_.Handle(R"({"command": "config", "config_file": "/no/such/file"})");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to read config file: /no/such/file"));
  EXPECT_TRUE(target_.steps.empty());
}

TEST_F(CommandHandlerTest, AFolderInTheFilesPlaceIsAFileThatCannotBeRead) {
  handler_.Handle(R"({"command": "config", "config_file": ")" + folder_.Path() + "\"}");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to read config file: " + folder_.Path()));
}

TEST_F(CommandHandlerTest, AFileThatIsNoObjectIsRefused) {
  for (const char* text : {"", "[]", "{", "{} {}"}) {
    HandleConfig(text);
  }
  EXPECT_EQ(log_.Count("Invalid configuration file."), 4);
  EXPECT_TRUE(target_.steps.empty());
}

TEST_F(CommandHandlerTest, AFileThatLacksAnythingIsRefusedAsAWhole) {
  for (const char* key : {"common_config", "fim_config", "ioc_config", "host_warden_pid", "host_warden_path"}) {
    rapidjson::Document json;
    common::util::ParseJson(json, kComplete);
    json.RemoveMember(key);
    HandleConfig(common::util::WriteJson(json));
  }
  EXPECT_EQ(log_.Count("Incomplete configuration file: " + (folder_ / "edr.json")), 5) << log_.All();
  EXPECT_TRUE(target_.steps.empty());
}

TEST_F(CommandHandlerTest, ARefusedSectionSkipsTheStepsBehindItAndKeepsThoseBeforeIt) {
  target_.on_step = [](const std::string& step) {
    if (step.rfind("fim", 0) == 0) throw std::invalid_argument("Fim::Config::Update: Invalid json");
  };
  HandleConfig(kComplete);
  EXPECT_EQ(target_.steps, Steps{"log"});
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to update configuration: Fim::Config::Update: Invalid json"));
}

TEST_F(CommandHandlerTest, ARefusedSectionOfIndicatorsKeepsTheAgentAsItWas) {
  target_.on_step = [](const std::string& step) {
    if (step.rfind("ioc", 0) == 0) throw std::invalid_argument("Ioc::Config::Update: Invalid json");
  };
  HandleConfig(kComplete);
  EXPECT_EQ(target_.steps, (Steps{"log", R"(fim {"a":1})"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to update configuration: Ioc::Config::Update: Invalid json"));
}

TEST_F(CommandHandlerTest, AnyOtherFailureLeavesTheHandler) {
  target_.on_step = [](const std::string&) { throw std::runtime_error("bad level"); };
  EXPECT_THROW(HandleConfig(kComplete), std::runtime_error);
}

TEST(ConfigDocumentTest, TheAgentsPidMustBeAnInteger) {
  const fakes::TempFolder folder;
  const std::string with = folder.Write("a", R"({"host_warden_pid": -3, "host_warden_path": "/x"})");
  ASSERT_TRUE(ConfigDocument::Read(with).GetAgentIdentity());
  EXPECT_EQ(ConfigDocument::Read(with).GetAgentIdentity()->pid, -3);
  const std::string text = folder.Write("b", R"({"host_warden_pid": "3", "host_warden_path": "/x"})");
  EXPECT_FALSE(ConfigDocument::Read(text).GetAgentIdentity());
}

}  // namespace
}  // namespace zagent::edr::host
