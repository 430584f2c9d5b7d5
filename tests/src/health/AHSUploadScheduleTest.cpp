#include "src/health/AHSUploadSchedule.h"

#include <gmock/gmock.h>

#include <optional>
#include <thread>

#include "common/src/util/Json.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeUploader.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/health/StatusTable.h"

namespace zagent::health {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

AHSSettings Settings(const std::string& service_url, const std::string& customer = "customer") {
  rapidjson::Document json;
  common::util::ParseJson(json, R"({"agent_id":"agent","agent_version":"1","ca_cert_path":"","connection_timeout":1,
    "customer_id":")" + customer + R"(","log_config_file":"","proxy_order":0,"request_timeout":1,"service_url":")" +
                                    service_url + R"(","activation_id":"x","environment_variables":{},
    "agent_effective_uid":0,"agent_effective_gid":0,"ipv4":"","ipv6":"","osname":"","platform":"",
    "agent_install_path":"/opt","sudo_command":"","use_sudo":false})");
  return AHSSettings(common::CommonConfig(json));
}

TEST(AHSSettingsTest, PutsTheAgentIntoThePath) {
  EXPECT_EQ(Settings("https://platform.example/").GetUploadUrl(),
            "https://platform.example/v1/customer/customer/agent/agent/status");
  EXPECT_EQ(Settings("https://platform.example", "a/b?c#d e").GetUploadUrl(),
            "https://platform.example/v1/customer/a%2Fb%3Fc%23d%20e/agent/agent/status");
  EXPECT_EQ(Settings("https://platform.example").upload_interval, 300);
}

class AHSUploadScheduleTest : public testing::Test {
 protected:
  AHSUploadScheduleTest() { Make(AHSRecordType::Edr); }

  void Make(AHSRecordType type) {
    auto uploader = std::make_unique<fakes::FakeUploader>();
    uploader_ = uploader.get();
    schedule_.emplace(Settings("https://platform.example"), store_, std::move(uploader), clock_, type);
  }
  // One run from its start to its end, on its own thread.
  void Run() {
    schedule_->Start();
    AwaitEnd();
  }
  void AwaitEnd() {
    while (schedule_->IsRunning()) std::this_thread::yield();
    schedule_->Cancel();
  }
  [[nodiscard]] std::int64_t SecondsToNextRun() {
    return (schedule_->NextRunTime() - common::util::ToNanoseconds(clock_.Now())) / 1'000'000'000;
  }
  void Report(const std::string& path, State state = State::Good) {
    store_.Report({StatusCode::FimManifest, path, state, {}, {}});
  }
  StatusTable Table() { return StatusTable(folder_ / HealthStore::kFileName); }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;  // begins at 2023-11-14T22:13:20Z
  fakes::TempFolder folder_;
  HealthStore store_{folder_.Path(), HealthStore::kFileName, clock_};
  fakes::FakeUploader* uploader_ = nullptr;
  std::optional<AHSUploadSchedule> schedule_;
};

TEST_F(AHSUploadScheduleTest, MakesNoRequestWithoutRows) {
  Run();
  EXPECT_THAT(uploader_->Uploads(), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[EDR]: AHSUploadSchedule:Execute() triggered .. "));
  EXPECT_TRUE(log_.Has("[EDR]: AHS: Read 0 records from DB"));
  EXPECT_EQ(SecondsToNextRun(), 300);
}

TEST_F(AHSUploadScheduleTest, SendsAllRowsInOneDocumentAndDeletesThem) {
  Report("/a");
  Table().Insert("", 4001, "{\"half\":");
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_THAT(uploads, SizeIs(1));
  EXPECT_EQ(uploads[0].url, "https://platform.example/v1/customer/customer/agent/agent/status");
  EXPECT_EQ(uploads[0].content_type, "application/json");
  const std::string payload =
      R"({"status":[{"dateTime":"2023-11-14T22:13:20Z","contextId":"/a","statusCode":4002,"state":1},)"
      R"({"dateTime":"2024-05-01T10:20:30Z","contextId":"","statusCode":4001,"state":1}]})";
  EXPECT_EQ(uploads[0].payload, payload);
  EXPECT_THAT(Table().Contexts(), IsEmpty());
  EXPECT_TRUE(log_.Has("[EDR]: AHS: Read 2 records from DB"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Error in parsing Extra fields column from AgentStatus table"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[EDR]: :AHS: Payload data (uncompressed): " + payload));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "AHSUploadSchedule: EDR status successfully uploaded."));
}

TEST_F(AHSUploadScheduleTest, NeitherSendsNorDeletesRowsOfOtherCodes) {
  Table().Insert("lower", 4000);
  Table().Insert("higher", 5001);
  Run();
  EXPECT_THAT(uploader_->Uploads(), IsEmpty());
  Report("/a");
  Run();
  EXPECT_THAT(uploader_->Uploads(), SizeIs(1));
  EXPECT_THAT(Table().Contexts(), ElementsAre("lower", "higher"));
}

TEST_F(AHSUploadScheduleTest, RowsStayAfterAFailureUntilTheNextInterval) {
  Report("/a");
  uploader_->Script({{100016, 404}});
  Run();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING,
                       "AHSUploadSchedule: Failed to upload data. The next upload will be tried 300 seconds later."));
  EXPECT_FALSE(log_.Has("successfully"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
  EXPECT_EQ(SecondsToNextRun(), 300) << "not sooner";
  clock_.Advance(299s);
  EXPECT_EQ(SecondsToNextRun(), 1);
  clock_.Advance(1s);
  EXPECT_EQ(SecondsToNextRun(), 0);
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_THAT(uploads, SizeIs(2));
  EXPECT_EQ(uploads[1].payload, uploads[0].payload);
  EXPECT_THAT(Table().Contexts(), IsEmpty());
}

TEST_F(AHSUploadScheduleTest, RunsAtOnceThenEveryInterval) {
  EXPECT_EQ(SecondsToNextRun(), 0);
  Run();
  EXPECT_EQ(SecondsToNextRun(), 300);
  clock_.Advance(400s);
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(AHSUploadScheduleTest, AClockThatIsSetBackDelaysNothing) {
  Run();
  clock_.SetWall(-24h);
  schedule_->OnClockStep(-24h);
  EXPECT_EQ(SecondsToNextRun(), 300);
}

TEST_F(AHSUploadScheduleTest, WhatIsReportedDuringAnUploadIsNotDeletedWithIt) {
  Report("/a");
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  Report("/b");
  uploader_->Release();
  AwaitEnd();
  EXPECT_THAT(Table().Contexts(), ElementsAre("/b"));
}

TEST_F(AHSUploadScheduleTest, ACancelEndsAnUploadAndKeepsTheRows) {
  Report("/a");
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  schedule_->Cancel();
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
}

TEST_F(AHSUploadScheduleTest, AnUnknownKindOfRowsGoesNowhere) {
  Make(static_cast<AHSRecordType>(7));
  Report("/a");
  Run();
  EXPECT_THAT(uploader_->Uploads(), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Invalid AHSRecordType provided. Aborting this attempt."));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
}

TEST_F(AHSUploadScheduleTest, ADatabaseThatCannotBeReadEndsTheRunAndNotTheSchedule) {
  Report("/a");
  {
    StatusTable other = Table();
    other.Ask("BEGIN EXCLUSIVE");
    Run();
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[EDR]: AHSUploadSchedule: ")) << log_.All();
    other.Ask("ROLLBACK");
  }
  EXPECT_EQ(SecondsToNextRun(), 300);
  Run();
  EXPECT_THAT(uploader_->Uploads(), SizeIs(1));
}

}  // namespace
}  // namespace zagent::health
