#include "common/src/http/UploadAlarms.h"

#include <gtest/gtest.h>

#include "common/src/http/InMemoryHttpResponse.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using namespace std::chrono_literals;

class UploadAlarmsTest : public ::testing::Test {
 protected:
  static UploadSource File(const std::string& name) {
    UploadSource source;
    source.path = "/spool/" + name;
    return source;
  }

  void Answer(long http_code, const std::string& date = "", const std::optional<UploadSource>& source = std::nullopt,
              bool is_proxys_own = false) {
    InMemoryHttpResponse response;
    response.SetProxysOwn(is_proxys_own);
    if (!date.empty()) response.AddHeader("date", date);
    response.SetHttpCode(http_code);
    alarms_.OnAnswer(response, source, source ? "id of " + source->path : "random");
  }
  void Refuse(long http_code, const std::string& name = "fim.0001") { Answer(http_code, "", File(name)); }

  int SkewLines() { return log_.Count("HttpUploader: The clock of this host is "); }
  int FileLines() { return log_.Count("HttpUploader: The platform has refused the file "); }

  fakes::LogCapture log_;
  fakes::FakeClock clock_{util::Clock::SystemTime(std::chrono::seconds(1'714'558'830))};  // 2024-05-01T10:20:30Z
  UploadAlarms alarms_{clock_};
};

TEST_F(UploadAlarmsTest, NamesAClockThatIsOff) {
  Answer(401, "Wed, 01 May 2024 10:15:29 GMT");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "HttpUploader: The clock of this host is 301 seconds ahead of the platform's, which refuses its "
                       "signatures"));
  clock_.Advance(24h);
  Answer(401, "Thu, 02 May 2024 11:20:30 GMT");
  EXPECT_TRUE(log_.Has("HttpUploader: The clock of this host is 3600 seconds behind the platform's"));
}

TEST_F(UploadAlarmsTest, ToleratesFiveMinutesAndOtherAnswers) {
  Answer(401, "Wed, 01 May 2024 10:15:30 GMT");
  Answer(401, "Wed, 01 May 2024 10:25:30 GMT");
  Answer(403, "Wed, 01 May 2020 10:15:29 GMT");
  Answer(200, "Wed, 01 May 2020 10:15:29 GMT");
  Answer(401);
  Answer(401, "no date at all");
  EXPECT_EQ(0, SkewLines());
}

TEST_F(UploadAlarmsTest, NamesTheClockOnceADay) {
  const auto answer = [&] { Answer(401, "Wed, 01 May 2019 10:15:29 GMT"); };
  for (int i = 0; i < 3; ++i) answer();
  clock_.Advance(24h - 1s);
  answer();
  EXPECT_EQ(1, SkewLines());
  clock_.Advance(1s);
  answer();
  EXPECT_EQ(2, SkewLines());
}

TEST_F(UploadAlarmsTest, NamesAFileThatWasRefusedThreeTimes) {
  Refuse(413);
  Refuse(400);
  EXPECT_EQ(0, FileLines());
  Refuse(422);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR,
               "HttpUploader: The platform has refused the file /spool/fim.0001 3 times, now with HTTP code 422: "
               "it stays, and what came later waits behind it"));
  Refuse(415);
  EXPECT_EQ(1, FileLines()) << "once a day";
  clock_.Advance(24h);
  Refuse(415);
  EXPECT_TRUE(log_.Has(" 5 times, now with HTTP code 415"));
}

TEST_F(UploadAlarmsTest, CountsEachFileForItself) {
  for (const char* name : {"fim.0001", "ioc.0001", "fim.0001", "ioc.0001"}) Refuse(400, name);
  EXPECT_EQ(0, FileLines());
}

TEST_F(UploadAlarmsTest, CountsNoAnswerThatMayChange) {
  for (const long code : {0L, 401L, 404L, 409L, 429L, 500L, 503L}) {
    for (int i = 0; i < 3; ++i) Refuse(code);
  }
  for (int i = 0; i < 3; ++i) Answer(400);  // an upload without a file
  EXPECT_EQ(0, FileLines());
}

TEST_F(UploadAlarmsTest, ForgetsAFileThatWasAccepted) {
  Refuse(400);
  Refuse(400);
  Answer(200, "", File("fim.0001"));
  Refuse(400);
  EXPECT_EQ(0, FileLines());
}

TEST_F(UploadAlarmsTest, BelievesNoProxyAboutClockAndFile) {
  Answer(401, "Wed, 01 May 2019 10:15:29 GMT", std::nullopt, true);
  for (int i = 0; i < 3; ++i) Answer(413, "", File("fim.0001"), true);
  EXPECT_EQ(0, SkewLines());
  EXPECT_EQ(0, FileLines());
  Refuse(413);
  Refuse(413);
  Answer(200, "", File("fim.0001"), true);
  Refuse(413);
  EXPECT_EQ(0, FileLines()) << "it was accepted, whoever says so";
}

TEST_F(UploadAlarmsTest, ForgetsTheFirstFileAtTheBound) {
  Refuse(400, "first");
  Refuse(400, "first");
  for (std::size_t i = 0; i < UploadAlarms::kMaxFiles; ++i) Refuse(400, std::to_string(i));
  Refuse(400, "first");
  EXPECT_EQ(0, FileLines());
}

}  // namespace
}  // namespace zagent::common
