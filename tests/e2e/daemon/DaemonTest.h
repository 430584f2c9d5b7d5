#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/daemon/ExampleConfig.h"
#include "tests/e2e/daemon/Sandbox.h"
#include "tests/e2e/daemon/ScriptedAudit.h"

namespace zagent::e2e {

using namespace std::chrono_literals;

// The vocabulary of tests on the running daemon: an agent and a scripted kernel around it.
class DaemonTest : public testing::Test {
 protected:
  DaemonTest() {
    EnterSandbox();
    syslog_ = std::make_unique<SyslogCapture>();
    audit_ = std::make_unique<ScriptedAudit>("/run/audit");
  }
  ~DaemonTest() override {
    if (HasFailure()) std::fputs(config_.ReadLog().c_str(), stderr);
  }

  void StartProcess() {
    agent_ = std::make_unique<TestAgent>();
    daemon_ = std::make_unique<DaemonProcess>(
        std::vector<std::string>{"OSTREL_E2E_AUDIT=/run/audit", "OSTREL_E2E_RULES=/run/rules",
                                 "OSTREL_E2E_REFUSE=/run/refuse", "OSTREL_E2E_HOLD=/run/hold"});
  }
  void StartDaemon() {
    StartProcess();
    agent_->SendConfig(config_.File());
    (dispatcher_ ? *dispatcher_ : *audit_).AwaitConsumer();
  }

  void UseDispatcher() {
    dispatcher_ = std::make_unique<ScriptedAudit>("/run/dispatcher", ScriptedAudit::Source::Dispatcher);
    rapidjson::Document& json = config_.Json();
    json["edr_config"].AddMember("dispatcher_socket_path", "/run/dispatcher", json.GetAllocator());
    config_.Write();
  }

  void ExtendCoverage() {
    rapidjson::Document& json = config_.Json();
    json["edr_config"].AddMember("extended_coverage", true, json.GetAllocator());
    config_.Write();
  }

  void ExpectOrderlyEnd() {
    EXPECT_EQ(daemon_->WaitForExit(), 0);
    EXPECT_EQ(RuleKeys(), "") << "rules left in the kernel";
  }

  using Seconds = std::chrono::duration<double>;
  // From the wish to the end of the process.
  template <typename Wish>
  Seconds TimeToEnd(const Wish& wish) {
    const auto start = std::chrono::steady_clock::now();
    wish();
    ExpectOrderlyEnd();
    return std::chrono::steady_clock::now() - start;
  }

  // Has indicators of compromise of the watched folder, and of processes, reported. Answers the manifest's path.
  std::string UseIndicatorsOfCompromise() {
    const std::string manifest = config_.Folder().Write("ioc-manifest.json", R"({
        "policyVersion": "2.0.0", "policyId": "p", "productId": "p", "globalSettings": {}, "rules": [
        {"ruleId": "ioc-programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]}},
        {"ruleId": "ioc-files", "ruleType": "Directory", "imagePath": ")" + config_.Watched() +
                                                                                 R"(",
         "recursiveDepth": "All", "notify": {"File": ["create", "write", "delete"]}}]})");
    rapidjson::Document& json = config_.Json();
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("manifest_path", rapidjson::Value(manifest, json.GetAllocator()), json.GetAllocator());
    entry.AddMember("manifest_type", "ioc", json.GetAllocator());
    json["ioc_config"]["manifests"].PushBack(entry, json.GetAllocator());
    config_.Write();
    return manifest;
  }

  void MakeWatchedFolder(const std::string& name) {
    const std::string path = config_.Watched() + "/" + name;
    std::filesystem::create_directory(path);
    (dispatcher_ ? *dispatcher_ : *audit_).MadeFolder(path);
  }

  // A manifest with the one rule `id`.
  [[nodiscard]] std::string WriteRule(const std::string& id) const {
    return config_.Folder().Write(id + ".json", R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": false,
        "rules": [{"ruleId": ")" + id + R"(", "ruleType": "directory", "imagePath": ")" +
                                                    config_.Watched() + R"(", "recursiveDepth": "all",
        "notify": ["create"]}]}}})");
  }
  // A complete configuration file with a manifest of the one rule `id`.
  [[nodiscard]] std::string WriteConfigWithRule(const std::string& id) {
    rapidjson::Document& json = config_.Json();
    json["fim_config"]["manifests"][0]["manifest_path"].SetString(WriteRule(id), json.GetAllocator());
    return config_.Folder().Write("config-" + id + ".json", common::util::WriteJson(json));
  }

  static std::string RuleKeys() {
    std::ifstream in("/run/rules");
    return {std::istreambuf_iterator<char>(in), {}};
  }

  // Waits for something that another process does; fails the test when it does not come.
  template <typename Condition>
  [[nodiscard]] static bool Within(std::chrono::seconds time, const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      usleep(20'000);
    }
    return true;
  }
  [[nodiscard]] int LogCount(const std::string& text) const {
    const std::string log = config_.ReadLog();
    int count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }
  // The log tells of these in this order, whatever else stands between them.
  void ExpectInOrder(const std::vector<std::string>& texts) const {
    const std::string log = config_.ReadLog();
    std::size_t at = 0;
    for (const std::string& text : texts) {
      const std::size_t found = log.find(text, at);
      if (found == std::string::npos) {
        ADD_FAILURE() << "not behind the one before it: " << text;
        return;
      }
      at = found + text.size();
    }
  }
  [[nodiscard]] bool LogComesToHold(const std::string& text, std::chrono::seconds time = 20s) const {
    return Within(time, [&] { return config_.ReadLog().find(text) != std::string::npos; });
  }
  [[nodiscard]] std::size_t SpoolFiles() const {
    const std::filesystem::directory_iterator files(config_.Spool());
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

  // What waits to be told of the daemon's health, as code and fields; to be asked while it does not run.
  [[nodiscard]] std::vector<std::string> StatusRows() const {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open((config_.Folder() / "EDRStatus.db").c_str(), &database), SQLITE_OK);
    std::vector<std::string> rows;
    const auto add = [](void* all, int, char** values, char**) {
      static_cast<std::vector<std::string>*>(all)->push_back(std::string(values[0]) + " " + values[1]);
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, "SELECT StatusCode, AdditionalFields FROM AgentStatus ORDER BY rowid", add, &rows,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    return rows;
  }
  ExampleConfig config_;
  std::unique_ptr<SyslogCapture> syslog_;
  std::unique_ptr<ScriptedAudit> audit_;
  std::unique_ptr<ScriptedAudit> dispatcher_;
  std::unique_ptr<TestAgent> agent_;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace zagent::e2e
