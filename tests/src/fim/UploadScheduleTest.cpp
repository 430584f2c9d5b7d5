#include "src/fim/UploadSchedule.h"

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
#include "tests/src/fim/TestConfig.h"

namespace zagent::fim::internal {
namespace {

using std::chrono::seconds;

constexpr const char* kFile = R"({"events":[{"timestamp":"2024-05-01T10:20:30Z","eventId":1}]})";

class UploadScheduleTest : public testing::Test {
 protected:
  UploadScheduleTest() { MakeSchedule(nullptr); }

  void MakeSchedule(const common::BlackoutManager* quiet_hours) {
    auto uploader = std::make_unique<fakes::FakeUploader>();
    uploader_ = uploader.get();
    schedule_ = std::make_unique<UploadSchedule>(*config_, storage_, std::move(uploader), quiet_hours, health_, clock_);
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
    config_->Update(Json(section.Text()).Value());
  }

  // Of the local time, in whose week quiet hours are told.
  [[nodiscard]] int SecondOfDay() const {
    const std::tm local = LocalTime();
    return (local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec;
  }
  [[nodiscard]] std::tm LocalTime() const {
    const auto now = std::chrono::system_clock::to_time_t(clock_.Now());
    std::tm local{};
    localtime_r(&now, &local);
    return local;
  }
  // Quiet hours of a module that are the whole week but for the quarter of an hour so many behind the present one.
  [[nodiscard]] std::string OpenForAQuarter(const std::string& module, int behind) const {
    const auto quarter = static_cast<std::size_t>(LocalTime().tm_wday * 96 + SecondOfDay() / 900 + behind) % 672;
    std::string week(168, '0');
    week[quarter / 4] = "8421"[quarter % 4];
    return R"({"Blackout_Events":[{"@ID":")" + module + R"(","@NETWORK_BLACKOUT":")" + week +
           R"(","@ACTIVITY_BLACKOUT":")" + std::string(168, 'F') + R"("}]})";
  }

  [[nodiscard]] std::int64_t SecondsToNextRun() {
    return (schedule_->NextRunTime() - common::util::ToNanoseconds(clock_.Now())) / 1'000'000'000;
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;  // begins at 2023-11-14T22:13:20Z
  std::unique_ptr<Config> config_ = MakeConfig({});
  fakes::MemoryStorage storage_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Fim};
  fakes::FakeUploader* uploader_ = nullptr;
  std::unique_ptr<UploadSchedule> schedule_;
};

TEST_F(UploadScheduleTest, ARunThatWouldBeginInQuietHoursWaitsForTheirEnd) {
  const std::string table = OpenForAQuarter("FIM", 1);
  const std::string table_of_another = OpenForAQuarter("IOC", 1);
  const auto seconds_to_run = [&](const std::string& week) {
    const common::BlackoutManager quiet_hours(week, clock_);
    UploadSchedule schedule(*config_, storage_, std::make_unique<fakes::FakeUploader>(), &quiet_hours, health_, clock_);
    return (schedule.NextRunTime() - common::util::ToNanoseconds(clock_.Now())) / 1'000'000'000;
  };
  const int to_window = 900 - SecondOfDay() % 900;
  EXPECT_EQ(seconds_to_run(table), to_window);
  EXPECT_EQ(seconds_to_run(table_of_another), 0) << "they are another's";
  clock_.Advance(seconds(to_window));
  EXPECT_EQ(seconds_to_run(table), 0);
}

TEST_F(UploadScheduleTest, QuietHoursCountWhenTheRunWouldBegin) {
  // Open now, and closed by the time that the interval is over.
  const common::BlackoutManager quiet_hours(OpenForAQuarter("FIM", 0), clock_);
  SetInterval(900);
  MakeSchedule(&quiet_hours);
  EXPECT_EQ(SecondsToNextRun(), 0);
  Run();
  EXPECT_EQ(SecondsToNextRun(), 7 * 86'400 - SecondOfDay() % 900) << "the same quarter of an hour, a week later";
}

TEST_F(UploadScheduleTest, QuietHoursThatBeginDuringARunLeaveTheFurtherFilesToTheNextWindow) {
  const common::BlackoutManager quiet_hours(OpenForAQuarter("FIM", 0), clock_);
  MakeSchedule(&quiet_hours);
  storage_.AddFile("/spool/fim.0001", R"({"events":[1]})");
  storage_.AddFile("/spool/fim.0002", R"({"events":[2]})");
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  clock_.Advance(seconds(900 - SecondOfDay() % 900));
  uploader_->Release();
  AwaitEnd();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_EQ(storage_.FileNames(), std::vector<std::string>{"/spool/fim.0002"}) << "the first was under way";
  EXPECT_EQ(SecondsToNextRun(), 7 * 86'400 - 900) << "a week from the quarter of an hour that is over";
  clock_.Advance(seconds(7 * 86'400 - 900));
  Run();
  EXPECT_TRUE(storage_.FileNames().empty());
}

TEST_F(UploadScheduleTest, AnEmptySpoolGivesNoRequest) {
  Run();
  EXPECT_TRUE(uploader_->Uploads().empty());
  EXPECT_FALSE(log_.Has("Failed"));
}

TEST_F(UploadScheduleTest, AFileIsSentWithTheTimeOfTheUploadAndDeleted) {
  storage_.AddFile("/spool/fim.0001", kFile);
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 1U);
  EXPECT_EQ(uploads[0].url, "https://platform.example/fim/events");
  EXPECT_EQ(uploads[0].content_type, "application/json");
  EXPECT_EQ(uploads[0].payload,
            R"({"events":[{"timestamp":"2024-05-01T10:20:30Z","eventId":1}],"timestamp":"2023-11-14T22:13:20Z"})");
  EXPECT_TRUE(storage_.FileNames().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Payload data (uncompressed): {\"events\":["));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[FIM]: UploadSchedule: Events successfully uploaded."));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[FIM]: Deleted file: /spool/fim.0001"));
}

TEST_F(UploadScheduleTest, TheUploaderLearnsWhichFileItSends) {
  storage_.AddFile("/spool/fim.0001", kFile);
  storage_.AddFile("/spool/fim.0002", kFile);
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 2U);
  ASSERT_TRUE(uploads[0].source && uploads[1].source);
  EXPECT_EQ(uploads[0].source->path, "/spool/fim.0001");
  EXPECT_EQ(uploads[0].source->prefix, "fim");
  EXPECT_EQ(uploads[0].source->size, std::string(kFile).size());
  EXPECT_NE(uploads[0].source->inode, uploads[1].source->inode);
}

TEST_F(UploadScheduleTest, OneRunSendsEveryFileOldestFirst) {
  storage_.AddFile("/spool/fim.0001", R"({"events":[1]})");
  storage_.AddFile("/spool/fim.0002", R"({"events":[2]})");
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 2U);
  EXPECT_EQ(uploads[0].payload.substr(0, 13), R"({"events":[1])");
  EXPECT_EQ(uploads[1].payload.substr(0, 13), R"({"events":[2])");
}

TEST_F(UploadScheduleTest, ATruncatedFileIsDeletedAndTheNextOneGoesOutInTheSameRun) {
  storage_.AddFile("/spool/fim.0001", R"({"events":[{"eventId":1})");
  storage_.AddFile("/spool/fim.0002", kFile);
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_TRUE(storage_.FileNames().empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "[FIM]: UploadSchedule: Failed to parse file: /spool/fim.0001: Missing a comma or ']' after an "
                       "array element. (offset: 24)"))
      << log_.All();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: UploadSchedule: Deleting corrupt file: /spool/fim.0001"));
}

TEST_F(UploadScheduleTest, ACorruptFileThatCannotBeDeletedEndsTheRun) {
  storage_.AddFile("/spool/fim.0001", "");
  storage_.undeletable = {"/spool/fim.0001"};
  Run();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to delete corrupt file: /spool/fim.0001"));
  EXPECT_EQ(log_.Count("Deleting corrupt file"), 1);
}

TEST_F(UploadScheduleTest, AFailedUploadEndsTheRunAndTheSameFileIsTriedAtTheNext) {
  storage_.AddFile("/spool/fim.0001", R"({"events":[1]})");
  storage_.AddFile("/spool/fim.0002", R"({"events":[2]})");
  uploader_->Script({{100'023, 500}});
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_EQ(storage_.FileNames().size(), 2U);
  EXPECT_TRUE(
      log_.Has("[FIM]: UploadSchedule: Failed to upload data. The next upload will be tried 60 seconds later."));
  Run();
  const auto uploads = uploader_->Uploads();
  ASSERT_EQ(uploads.size(), 3U);
  EXPECT_EQ(uploads[1].payload, uploads[0].payload);
  EXPECT_TRUE(storage_.FileNames().empty());
}

TEST_F(UploadScheduleTest, ASentFileThatCannotBeDeletedIsNotSentAgainInTheSameRun) {
  storage_.AddFile("/spool/fim.0001", kFile);
  storage_.undeletable = {"/spool/fim.0001"};
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to delete file: /spool/fim.0001"));
}

TEST_F(UploadScheduleTest, AStorageThatCannotBeReadEndsTheRun) {
  storage_.read_code = common::StorageCode::IOError;
  Run();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: UploadSchedule: Failed to read data from storage."));
  EXPECT_EQ(SecondsToNextRun(), 60);
}

TEST_F(UploadScheduleTest, AStorageThatFailsOtherwiseCostsThisRunOnly) {
  storage_.AddFile("/spool/fim.0001", kFile);
  storage_.error = "no memory";
  Run();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: UploadSchedule: no memory"));
  EXPECT_EQ(SecondsToNextRun(), 60);
  storage_.error.clear();
  Run();
  EXPECT_EQ(uploader_->Uploads().size(), 1U);
}

TEST_F(UploadScheduleTest, TheStatusOfTheLastAttemptIsKept) {
  EXPECT_TRUE(schedule_->GetStatus().empty());
  storage_.AddFile("/spool/fim.0001", kFile);
  uploader_->Script({{100'023, 503}});
  Run();
  const UploadSchedule::Status expected = {{"httpStatus", "503"}, {"correlationId", "upload-1"}};
  EXPECT_EQ(schedule_->GetStatus(), expected);
}

TEST_F(UploadScheduleTest, TheFirstRunIsDueAtOnce) {
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(UploadScheduleTest, TheLastRunCountsWhetherItSucceededOrNot) {
  storage_.AddFile("/spool/fim.0001", kFile);
  uploader_->Script({{100'023, 500}});
  Run();
  EXPECT_EQ(SecondsToNextRun(), 60);
  clock_.Advance(seconds(59));
  EXPECT_EQ(SecondsToNextRun(), 1);
  clock_.Advance(seconds(100));
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(UploadScheduleTest, ANewIntervalCountsFromTheLastRun) {
  Run();
  SetInterval(300);
  clock_.Advance(seconds(10));
  EXPECT_EQ(SecondsToNextRun(), 290);
  SetInterval(5);
  EXPECT_EQ(SecondsToNextRun(), 0);
}

TEST_F(UploadScheduleTest, AnIntervalOfZeroIsAlwaysADayAway) {
  SetInterval(0);
  EXPECT_EQ(SecondsToNextRun(), 86'400);
  clock_.Advance(seconds(50'000));
  EXPECT_EQ(SecondsToNextRun(), 86'400);
}

TEST_F(UploadScheduleTest, AStepOfTheClockLeavesTheIntervalAsItIs) {
  const seconds day(86'400);
  schedule_->OnClockStep(day);
  EXPECT_EQ(SecondsToNextRun(), 0) << "there was no last run to move";
  Run();
  for (const seconds step : {day, -day}) {
    clock_.Advance(step);
    schedule_->OnClockStep(step);
    EXPECT_EQ(SecondsToNextRun(), 60);
  }
  // A run that ended after the step, but before anybody told of it.
  clock_.Advance(day);
  Run();
  schedule_->OnClockStep(day);
  EXPECT_EQ(SecondsToNextRun(), 60);
}

TEST_F(UploadScheduleTest, AnEndedRunAndAReschedulingWakeTheScheduler) {
  std::atomic<int> wakes = 0;
  schedule_->SetOnFinished([&] { ++wakes; });
  schedule_->Reschedule();
  EXPECT_EQ(wakes, 1);
  Run();
  EXPECT_GE(wakes, 2);
}

TEST_F(UploadScheduleTest, CancellingEndsAnUploadInFlightAndKeepsItsFile) {
  storage_.AddFile("/spool/fim.0001", kFile);
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  schedule_->Cancel();
  EXPECT_FALSE(schedule_->IsRunning());
  EXPECT_EQ(storage_.FileNames().size(), 1U);
}

TEST_F(UploadScheduleTest, EveryUploadTellsHowItWent) {
  storage_.AddFile("/spool/fim.0001", kFile);
  storage_.AddFile("/spool/fim.0002", kFile);
  uploader_->Script({{0, 202}, {100023, 500}});
  Run();
  EXPECT_EQ(reporter_.Lines(), (std::vector<std::string>{"4003 FIM 1 httpStatus=202 correlationId=upload-1",
                                                         "4003 FIM 0 httpStatus=500 correlationId=upload-2"}));
}

TEST_F(UploadScheduleTest, AnUploadThatTheEndCutsOffSaysNothing) {
  storage_.AddFile("/spool/fim.0001", kFile);
  uploader_->Hold();
  schedule_->Start();
  uploader_->AwaitUploads(1);
  schedule_->Cancel();
  EXPECT_TRUE(reporter_.Lines().empty());
}

}  // namespace
}  // namespace zagent::fim::internal
