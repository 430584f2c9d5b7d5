// What the running daemon tells of itself, and what becomes of it when the platform does not listen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/e2e/daemon/DaemonTest.h"
#include "tools/reference-receiver/ReferenceReceiver.h"

namespace zagent::e2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class HealthTest : public DaemonTest {
 protected:
  // A platform, in the place of an earlier one; `refused` is what its paths must hold to be answered with 404.
  void OpenPlatform(const std::string& refused = "") {
    platform_.reset();
    {
      const std::lock_guard lock(mutex_);
      lines_.clear();
    }
    const rapidjson::Value& common = config_.Json()["common_config"];
    tools::ReceiverOptions options;
    options.customer_id = common["customer_id"].GetString();
    options.agent_id = common["agent_id"].GetString();
    options.activation_id = common["activation_id"].GetString();
    options.ca_file = config_.Folder() / "ca.pem";
    options.keep_payloads = true;
    options.status = refused.empty() ? 0 : 404;
    options.only_for = refused;
    options.print = [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
    };
    platform_ = std::make_unique<tools::ReferenceReceiver>(std::move(options));
    config_.Set("common_config", "service_url", platform_->GetUrl());
    config_.Set("common_config", "ca_cert_path", platform_->GetCaFile());
    config_.Write();
  }

  // What the platform has printed that begins so.
  std::vector<std::string> Lines(const std::string& beginning) {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    for (const std::string& line : lines_) {
      if (line.starts_with(beginning)) lines.push_back(line);
    }
    return lines;
  }

  void ExitDaemon() {
    agent_->Send(R"({"command": "exit"})");
    ExpectOrderlyEnd();
    agent_.reset();
  }

  void Sql(const std::string& statement) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open((config_.Folder() / "EDRStatus.db").c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statement.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::unique_ptr<tools::ReferenceReceiver> platform_;
};

TEST_F(HealthTest, WhatTheDaemonTellsOfItselfReachesThePlatformOnce) {
  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("AHSUploadSchedule: EDR status successfully uploaded."));
  const std::string manifest = "status 4002 " + config_.Manifest() + R"( state=1 {"manifest":"applied"})";
  const std::string started = R"(status 4001 FIM state=1 {"component":"started"})";
  std::vector<std::string> all = Lines("status ");
  ASSERT_GE(all.size(), 2U);
  EXPECT_EQ(all[0], manifest);
  EXPECT_EQ(all[1], started);
  const auto payloads = platform_->GetPayloads();
  ASSERT_FALSE(payloads.empty());
  EXPECT_EQ(payloads[0].target, "/v1/customer/customer/agent/11111111-2222-3333-4444-555555555555/status");
  EXPECT_EQ(payloads[0].headers.at("content-type"), "application/json");
  EXPECT_EQ(payloads[0].headers.at("z-product"), "HOSTWARDEN");
  ASSERT_TRUE(LogComesToHold("AHS: Status 4004 of EDR: 1"));
  ExitDaemon();

  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(Within(20s, [this] { return LogCount("AHSUploadSchedule: EDR status successfully uploaded.") == 2; }));
  const auto later = Lines("status ");
  all.insert(all.end(), later.begin(), later.end());
  // The second run's word on its intake comes before or behind its upload.
  const auto intakes = std::count_if(
      all.begin(), all.end(), [](const std::string& line) { return line.starts_with("status 4004 EDR state=1 "); });
  EXPECT_THAT(intakes, testing::AnyOf(1, 2));
  EXPECT_EQ(std::count(all.begin(), all.end(), manifest), 2);
  EXPECT_EQ(std::count(all.begin(), all.end(), started), 2);
  EXPECT_EQ(std::count(all.begin(), all.end(), R"(status 4001 FIM state=0 {"component":"stopped"})"), 1);
  EXPECT_EQ(std::count(all.begin(), all.end(), R"(status 4101 IOC state=0 {"component":"disabled"})"), 2);
  EXPECT_EQ(std::count(all.begin(), all.end(), R"(status 4101 IOC state=0 {"component":"stopped"})"), 1);
  EXPECT_EQ(static_cast<std::ptrdiff_t>(all.size()), 8 + intakes) << testing::PrintToString(all);
  ExitDaemon();
}

TEST_F(HealthTest, IndicatorsOfCompromiseTellOfTheirWorkAndTheirManifests) {
  const std::string manifest = UseIndicatorsOfCompromise();
  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("AHSUploadSchedule: EDR status successfully uploaded."));
  EXPECT_THAT(Lines("status 4101"), ElementsAre(R"(status 4101 IOC state=1 {"component":"started"})"));
  EXPECT_THAT(Lines("status 4102"), ElementsAre("status 4102 " + manifest + R"( state=1 {"manifest":"applied"})"));
  ExitDaemon();

  config_.Folder().Write("ioc-manifest.json", "{ no json");
  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(Within(20s, [this] { return LogCount("AHSUploadSchedule: EDR status successfully uploaded.") == 2; }));
  EXPECT_THAT(Lines("status 4101"), ElementsAre(R"(status 4101 IOC state=0 {"component":"stopped"})",
                                                R"(status 4101 IOC state=1 {"component":"started"})"));
  const auto manifests = Lines("status 4102");
  ASSERT_EQ(manifests.size(), 1U);
  EXPECT_THAT(manifests[0], StartsWith("status 4102 " + manifest + R"( state=0 {"manifest":"failed","reason":")"));
  ExitDaemon();
}

TEST_F(HealthTest, AnOutageLosesNothingAndRepeatsNothing) {
  OpenPlatform("/status");
  StartDaemon();
  ASSERT_TRUE(
      LogComesToHold("AHSUploadSchedule: Failed to upload data. The next upload will be tried 300 seconds later."));
  ExitDaemon();
  EXPECT_THAT(Lines("status "), IsEmpty());

  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("AHSUploadSchedule: EDR status successfully uploaded."));
  const auto lines = Lines("status 4001");
  EXPECT_THAT(lines, ElementsAre(R"(status 4001 FIM state=1 {"component":"started"})",
                                 R"(status 4001 FIM state=0 {"component":"stopped"})",
                                 R"(status 4001 FIM state=1 {"component":"started"})"));
  ExitDaemon();
  for (const std::string& row : StatusRows()) EXPECT_THAT(row, Not(HasSubstr("started")));
}

TEST_F(HealthTest, FieldsThatCannotBeReadAreLeftOutAndOtherCodesStay) {
  StartDaemon();  // nobody listens where it uploads to
  ASSERT_TRUE(LogComesToHold("AHS: Read "));
  ExitDaemon();
  Sql("DELETE FROM AgentStatus");
  Sql("INSERT INTO AgentStatus VALUES ('2024-05-01T10:20:30Z', 'torn', 4001, 0, '{\"half\":'), "
      "('2024-05-01T10:20:30Z', 'other', 5001, 1, '')");

  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("AHSUploadSchedule: EDR status successfully uploaded."));
  EXPECT_THAT(Lines("status 4001 torn"), ElementsAre("status 4001 torn state=0 -"));
  EXPECT_THAT(Lines("status 5001"), IsEmpty());
  EXPECT_EQ(LogCount("Error in parsing Extra fields column from AgentStatus table"), 1);
  ExitDaemon();
  EXPECT_THAT(StatusRows(), testing::Contains(StartsWith("5001")));
}

TEST_F(HealthTest, ABrokenManifestAndARefusedUploadAreTold) {
  config_.WriteManifest("{ no json");
  OpenPlatform();
  StartDaemon();
  ASSERT_TRUE(LogComesToHold("AHSUploadSchedule: EDR status successfully uploaded."));
  EXPECT_THAT(Lines("status 4002"),
              ElementsAre("status 4002 " + config_.Manifest() +
                          R"( state=0 {"manifest":"failed","reason":"Invalid manifest json format for: )" +
                          config_.Manifest() + R"(: line 1, column 3: Missing a name for object member."})"));
  ExitDaemon();

  ASSERT_EQ(LogCount("Event json written to disc successfully"), 0);
  OpenPlatform("/fim/");
  config_.Json()["fim_config"]["manifests"][0]["manifest_path"].SetString(WriteRule("r1"),
                                                                          config_.Json().GetAllocator());
  config_.Write();
  StartDaemon();
  ASSERT_TRUE(Within(10s, [] { return RuleKeys().find("r1\n") != std::string::npos; })) << RuleKeys();
  MakeWatchedFolder("refused");
  ASSERT_TRUE(LogComesToHold("UploadSchedule: Failed to upload data. The next upload will be tried 1 seconds later."));
  ExitDaemon();
  EXPECT_THAT(StatusRows(), testing::Contains(AllOf(StartsWith("4003 "), HasSubstr(R"("httpStatus":"404")"),
                                                    HasSubstr(R"("correlationId":")"))));
}

}  // namespace
}  // namespace zagent::e2e
