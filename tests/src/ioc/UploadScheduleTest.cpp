#include "src/ioc/UploadSchedule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeUploader.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/MemoryStorage.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::ioc::internal {
namespace {

using std::chrono::seconds;

class IocUploadScheduleTest : public testing::Test {
 protected:
  IocUploadScheduleTest() { Make(""); }

  void Make(const std::string& gateway, const common::BlackoutManager* quiet_hours = nullptr) {
    auto uploader = std::make_unique<fakes::FakeUploader>();
    uploader_ = uploader.get();
    schedule_ =
        std::make_unique<UploadSchedule>(config_, storage_, gateway, std::move(uploader), quiet_hours, health_, clock_);
  }

  // One run from its start to its end, on its own thread.
  void Run() {
    schedule_->Start();
    AwaitEnd();
  }
  void AwaitEnd() {
    // A second Start waits for the first run; cancelling an ended run does nothing but join it.
    EXPECT_TRUE(fakes::Eventually([&] { return !schedule_->IsRunning(); }));
    schedule_->Cancel();
  }

  void SetInterval(unsigned interval) {
    TestSection section;
    section.upload_interval = interval;
    config_.Update(ParsedJson(section.Text()));
  }

  [[nodiscard]] std::tm LocalTime() const {
    const auto now = std::chrono::system_clock::to_time_t(clock_.Now());
    std::tm local{};
    localtime_r(&now, &local);
    return local;
  }
  // Quiet hours of a module that are the whole week but for the next quarter of an hour.
  [[nodiscard]] std::string OpenInTheNextQuarter(const std::string& module) const {
    const std::tm local = LocalTime();
    const auto quarter = static_cast<std::size_t>(local.tm_wday * 96 + local.tm_hour * 4 + local.tm_min / 15 + 1) % 672;
    std::string week(168, '0');
    week[quarter / 4] = "8421"[quarter % 4];
    return R"({"Blackout_Events":[{"@ID":")" + module + R"(","@NETWORK_BLACKOUT":")" + week +
           R"(","@ACTIVITY_BLACKOUT":")" + std::string(168, 'F') + R"("}]})";
  }

  [[nodiscard]] std::int64_t SecondsToNextRun() {
    return (schedule_->NextRunTime() - common::util::ToNanoseconds(clock_.Now())) / 1'000'000'000;
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig("https://platform.example/");
  Config config_{*common_, ParsedJson(TestSection().Text())};
  fakes::MemoryStorage storage_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Ioc};
  fakes::FakeUploader* uploader_ = nullptr;
  std::unique_ptr<UploadSchedule> schedule_;
};

TEST_F(IocUploadScheduleTest, TheUploaderSpeaksTheProtocolOfThisComponent) {
  const std::map<unsigned, std::string> expected = {{0, "1.0"}, {1, "IOC"}};
  EXPECT_EQ(uploader_->IndexedHeaders(), expected);
}

TEST_F(IocUploadScheduleTest, WithoutAGatewayAFileGoesToTheServiceUrlAsItIsAndIsDeleted) {
  const std::string bytes("\x00\x01\xff events", 10);
  storage_.AddFile("/spool/ioc.0001", bytes);
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 1U);
  EXPECT_EQ(uploads[0].url, "https://platform.example/linuxagentevent/v1/customer/c/agent/a");
  EXPECT_EQ(uploads[0].content_type, "application/octet-stream");
  EXPECT_EQ(uploads[0].payload, bytes);
  ASSERT_TRUE(uploads[0].source);
  EXPECT_EQ(uploads[0].source->path, "/spool/ioc.0001");
  EXPECT_TRUE(storage_.FileNames().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: UploadSchedule: Events successfully uploaded."));
}

TEST_F(IocUploadScheduleTest, AGatewayTakesThePlaceOfTheServiceUrlUntilItIsTakenAway) {
  Make("https://gateway.example/");
  storage_.AddFile("/spool/ioc.0001", "1");
  Run();
  schedule_->SetGatewayUrlPrefix("https://other.example/base");
  storage_.AddFile("/spool/ioc.0002", "2");
  Run();
  schedule_->SetGatewayUrlPrefix("");
  storage_.AddFile("/spool/ioc.0003", "3");
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 3U);
  EXPECT_EQ(uploads[0].url, "https://gateway.example/linuxagentevent/v1/customer/c/agent/a");
  EXPECT_EQ(uploads[1].url, "https://other.example/base/linuxagentevent/v1/customer/c/agent/a");
  EXPECT_EQ(uploads[2].url, "https://platform.example/linuxagentevent/v1/customer/c/agent/a");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Setting gateway url prefix to 'https://other.example/base'"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Setting gateway url prefix to ''"));
}

TEST_F(IocUploadScheduleTest, AnEmptySpoolGivesNoRequest) {
  Run();
  EXPECT_TRUE(uploader_->Uploads().empty());
  EXPECT_FALSE(log_.Has("Failed"));
}

TEST_F(IocUploadScheduleTest, AFullSpoolDrainsByThreeFilesARunOldestFirst) {
  for (const char* number : {"1", "2", "3", "4"}) storage_.AddFile(std::string("/spool/ioc.000") + number, number);
  Run();
  auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 3U);
  EXPECT_EQ(uploads[0].payload + uploads[1].payload + uploads[2].payload, "123");
  EXPECT_EQ(SecondsToNextRun(), 60) << "the fourth waits its turn";
  Run();
  uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 4U);
  EXPECT_EQ(uploads[3].payload, "4");
}

TEST_F(IocUploadScheduleTest, AFailedUploadKeepsTheFileAndEndsTheRun) {
  storage_.AddFile("/spool/ioc.0001", "1");
  storage_.AddFile("/spool/ioc.0002", "2");
  uploader_->Script({{100'023, 500}});
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_EQ(storage_.FileNames().size(), 2U);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR,
               "[IOC]: UploadSchedule: Failed to upload data. The next upload will be tried 60 seconds later."));
  EXPECT_EQ(SecondsToNextRun(), 60);
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 3U);
  EXPECT_EQ(uploads[1].payload, "1");
  EXPECT_TRUE(storage_.FileNames().empty());
}

TEST_F(IocUploadScheduleTest, ASentFileThatCannotBeDeletedIsNotSentAgainInTheSameRun) {
  storage_.AddFile("/spool/ioc.0001", "1");
  storage_.undeletable = {"/spool/ioc.0001"};
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: Failed to delete file: /spool/ioc.0001"));
}

TEST_F(IocUploadScheduleTest, AStorageThatCannotBeReadEndsTheRun) {
  storage_.read_code = common::StorageCode::IOError;
  Run();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: UploadSchedule: Failed to read data from storage."));
  EXPECT_EQ(SecondsToNextRun(), 60);
}

TEST_F(IocUploadScheduleTest, TheFirstRunIsDueAtOnceAndEachOtherAnIntervalAfterTheLast) {
  EXPECT_EQ(SecondsToNextRun(), 0);
  Run();
  EXPECT_EQ(SecondsToNextRun(), 60);
  clock_.Advance(seconds(59));
  EXPECT_EQ(SecondsToNextRun(), 1);
  clock_.Advance(seconds(100));
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(IocUploadScheduleTest, ANewIntervalCountsFromTheLastRun) {
  std::atomic<int> wakes = 0;
  Run();
  schedule_->SetOnFinished([&] { ++wakes; });
  SetInterval(300);
  schedule_->Reschedule();
  EXPECT_EQ(wakes, 1);
  clock_.Advance(seconds(10));
  EXPECT_EQ(SecondsToNextRun(), 290);
}

TEST_F(IocUploadScheduleTest, AnEndedRunWakesTheScheduler) {
  std::atomic<int> wakes = 0;
  schedule_->SetOnFinished([&] { ++wakes; });
  Run();
  EXPECT_GE(wakes, 1);
}

TEST_F(IocUploadScheduleTest, AnIntervalOfZeroIsOneRunADay) {
  SetInterval(0);
  EXPECT_EQ(SecondsToNextRun(), 86'400);
  clock_.Advance(seconds(50'000));
  EXPECT_EQ(SecondsToNextRun(), 36'400);
  clock_.Advance(seconds(36'400));
  EXPECT_EQ(SecondsToNextRun(), 0);
  Run();
  EXPECT_EQ(SecondsToNextRun(), 86'400);
}

TEST_F(IocUploadScheduleTest, AStepOfTheClockLeavesTheDayBeforeTheFirstRunAsItIs) {
  SetInterval(0);
  const seconds day(86'400);
  for (const seconds step : {day, -day}) {
    clock_.Advance(step);
    schedule_->OnClockStep(step);
    EXPECT_EQ(SecondsToNextRun(), 86'400);
  }
}

TEST_F(IocUploadScheduleTest, AStepOfTheClockLeavesTheIntervalAsItIs) {
  const seconds day(86'400);
  Run();
  for (const seconds step : {day, -day}) {
    clock_.Advance(step);
    schedule_->OnClockStep(step);
    EXPECT_EQ(SecondsToNextRun(), 60);
  }
}

TEST_F(IocUploadScheduleTest, ARunThatWouldBeginInQuietHoursWaitsForTheirEnd) {
  const common::BlackoutManager own(OpenInTheNextQuarter("IOC"), clock_);
  const common::BlackoutManager of_another(OpenInTheNextQuarter("FIM"), clock_);
  const std::tm local = LocalTime();
  Make("", &own);
  EXPECT_EQ(SecondsToNextRun(), 900 - (local.tm_min % 15 * 60 + local.tm_sec));
  Make("", &of_another);
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(IocUploadScheduleTest, QuietHoursThatBeginDuringARunLeaveTheFurtherFilesToTheNextWindow) {
  const std::tm local = LocalTime();
  const seconds to_window(900 - (local.tm_min % 15 * 60 + local.tm_sec));
  const common::BlackoutManager quiet_hours(OpenInTheNextQuarter("IOC"), clock_);
  Make("", &quiet_hours);
  storage_.AddFile("/spool/ioc.0001", "1");
  storage_.AddFile("/spool/ioc.0002", "2");
  clock_.Advance(to_window);
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  clock_.Advance(seconds(900));
  uploader_->Release();
  AwaitEnd();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_EQ(storage_.FileNames(), std::vector<std::string>{"/spool/ioc.0002"}) << "the first was under way";
  EXPECT_EQ(SecondsToNextRun(), 7 * 86'400 - 900);
  clock_.Advance(seconds(7 * 86'400 - 900));
  Run();
  EXPECT_TRUE(storage_.FileNames().empty());
}

TEST_F(IocUploadScheduleTest, CancellingEndsAnUploadInFlightKeepsItsFileAndSaysNothingOfThePlatform) {
  storage_.AddFile("/spool/ioc.0001", "1");
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  schedule_->Cancel();
  EXPECT_FALSE(schedule_->IsRunning());
  EXPECT_EQ(storage_.FileNames().size(), 1U);
  EXPECT_TRUE(reporter_.Lines().empty());
}

TEST_F(IocUploadScheduleTest, EveryUploadTellsHowItWent) {
  storage_.AddFile("/spool/ioc.0001", "1");
  storage_.AddFile("/spool/ioc.0002", "2");
  uploader_->Script({{0, 202}, {100023, 500}});
  Run();
  EXPECT_EQ(reporter_.Lines(), (std::vector<std::string>{"4103 IOC 1 httpStatus=202 correlationId=upload-1",
                                                         "4103 IOC 0 httpStatus=500 correlationId=upload-2"}));
}

}  // namespace
}  // namespace zagent::ioc::internal
