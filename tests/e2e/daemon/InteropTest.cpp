// The daemon between a platform and an agent in another language, written from docs/PROTOCOL.md alone.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "tests/e2e/daemon/ExampleConfig.h"
#include "tests/e2e/daemon/Sandbox.h"
#include "tests/e2e/daemon/ScriptedAudit.h"
#include "tests/fakes/LineProcess.h"
#include "tools/reference-receiver/ServerCertificate.h"

namespace zagent::e2e {
namespace {

using fakes::LineProcess;

class InteropTest : public testing::Test {
 protected:
  InteropTest() {
    EnterSandbox();
    syslog_ = std::make_unique<SyslogCapture>();
    audit_ = std::make_unique<ScriptedAudit>("/run/audit");
  }
  ~InteropTest() override {
    if (HasFailure()) std::fputs(config_.ReadLog().c_str(), stderr);
  }

  [[nodiscard]] static std::string Program(const std::string& name) { return std::string(OSTREL_INTEROP) + "/" + name; }
  std::string Common(const char* key) { return config_.Json()["common_config"][key].GetString(); }

  void StartPlatform(std::vector<std::string> more = {}) {
    const std::string folder = config_.Folder() / "platform";
    const tools::ServerCertificate certificate(folder, {});
    std::vector<std::string> arguments = {"python3", Program("receiver.py"), "--customer",   Common("customer_id"),
                                          "--agent", Common("agent_id"),     "--activation", Common("activation_id"),
                                          "--cert",  folder + "/cert.pem",   "--key",        folder + "/key.pem"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    platform_ = std::make_unique<LineProcess>(std::move(arguments));
    config_.Set("common_config", "service_url", platform_->AwaitLine("listening on "));
    config_.Set("common_config", "ca_cert_path", folder + "/cert.pem");
  }
  void UseVersion(const char* version) {
    rapidjson::Document& json = config_.Json();
    json["common_config"].AddMember("hmac_version", rapidjson::StringRef(version), json.GetAllocator());
  }
  void StartDaemon() {
    config_.Write();
    agent_ = std::make_unique<LineProcess>(
        std::vector<std::string>{"env", "OSTREL_E2E_AUDIT=/run/audit", "OSTREL_E2E_RULES=/run/rules", "python3",
                                 Program("agent.py"), "--daemon", OSTREL_E2E_DAEMON, "--config", config_.File()});
    agent_->AwaitLine("connected");
    audit_->AwaitConsumer();
    ASSERT_TRUE(fakes::Eventually([] { return Rules().find("watched-folder\n") != std::string::npos; })) << Rules();
  }
  void MakeWatchedFolder(const std::string& name) {
    const std::string path = config_.Watched() + "/" + name;
    std::filesystem::create_directory(path);
    audit_->MadeFolder(path);
  }
  static std::string Rules() {
    std::ifstream in("/run/rules");
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void EndDaemon() {
    agent_->Write("exit");
    EXPECT_EQ("0", agent_->AwaitLine("daemon ended with code "));
    EXPECT_EQ(0, agent_->AwaitExit());
  }

  ExampleConfig config_;
  std::unique_ptr<SyslogCapture> syslog_;
  std::unique_ptr<ScriptedAudit> audit_;
  std::unique_ptr<LineProcess> platform_;
  std::unique_ptr<LineProcess> agent_;
};

class InteropVersionTest : public InteropTest, public testing::WithParamInterface<const char*> {};

TEST_P(InteropVersionTest, ObeysTheAgentAndReachesThePlatform) {
  StartPlatform();
  UseVersion(GetParam());
  StartDaemon();
  agent_->Write("fim_status");
  agent_->AwaitLine("sent fim_status");
  MakeWatchedFolder("new");
  platform_->AwaitLine("event Create " + config_.Watched() + "/new", std::chrono::seconds(40));
  platform_->AwaitLine("accepted ");
  EndDaemon();
  EXPECT_NE(std::string::npos, config_.ReadLog().find("Command 'fim_status' received from agent"));
  EXPECT_EQ(std::string::npos, platform_->Said().find("rejected")) << platform_->Said();
}

INSTANTIATE_TEST_SUITE_P(Versions, InteropVersionTest, testing::Values("V1", "V2"));

TEST_F(InteropTest, SendsAnUploadAgainWhoseAnswerWasLostAndIsKnownByIt) {
  StartPlatform({"--lose-answers", "1"});
  StartDaemon();
  MakeWatchedFolder("new");
  const std::string id = platform_->AwaitLine("accepted ", std::chrono::seconds(40));
  platform_->AwaitLine("answer lost");
  EXPECT_EQ(id, platform_->AwaitLine("again ", std::chrono::seconds(40)));
  EndDaemon();
}

}  // namespace
}  // namespace zagent::e2e
