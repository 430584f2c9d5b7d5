#include "common/src/http/HttpUploader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "common/src/http/HttpService.h"
#include "common/src/http/interceptors/LzmaCompression.h"
#include "common/src/util/Fnv.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using fakes::FakeHttpServer;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

using Bytes = std::vector<unsigned char>;

class HttpUploaderTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.Start(); }

  HttpUploader::Settings SettingsFor(const std::string& url) {
    HttpUploader::Settings settings;
    settings.url = url;
    settings.customer_id = "customer-1";
    settings.agent_id = "agent-1";
    settings.agent_version = "4.2.0";
    settings.connection_timeout = 5;
    settings.request_timeout = 20;
    settings.retry_interval_seconds = 0;
    return settings;
  }
  HttpUploader UploaderTo(const std::string& url) { return {service_, hmac_, SettingsFor(url)}; }

  std::int32_t OutcomeOfAnswer(const std::string& status) {
    FakeHttpServer server({FakeHttpServer::Answer(status)});
    return UploaderTo(server.Url()).Upload("application/json", payload_);
  }

  fakes::LogCapture log_;
  HttpService service_{""};
  std::shared_ptr<const HmacConfig> hmac_ =
      std::make_shared<HmacConfig>("customer-1", "agent-1", "activation-1", false, HmacVersion::HmacV1);
  const Bytes payload_{'f', 'o', 'o', 'b', 'a', 'r'};
};

TEST_F(HttpUploaderTest, SendsTheProtocolHeadersWithTheCompressedPayload) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  HttpUploader uploader = UploaderTo(server.Url("/v1/fim"));
  uploader.SetIndexedHeader(0, "3");
  EXPECT_EQ(0, uploader.Upload("application/json", payload_));
  const auto sent = server.Requests().at(0);
  EXPECT_EQ("POST", sent.method);
  EXPECT_EQ("/v1/fim", sent.target);
  EXPECT_EQ("customer-1", sent.Header("Z-CUSTID"));
  EXPECT_EQ("agent-1", sent.Header("Z-CLNTID"));
  EXPECT_EQ("HOSTWARDEN", sent.Header("Z-PRODUCT"));
  EXPECT_EQ("LINUX", sent.Header("Z-PLATFORM"));
  EXPECT_EQ("x64", sent.Header("Z-ARCH"));
  EXPECT_EQ("3", sent.Header("Z-PROTOVER"));
  EXPECT_EQ("(absent)", sent.Header("Z-PROTOTYPE")) << "an indexed header without a value is not sent";
  EXPECT_THAT(sent.Header("Z-REQID"),
              MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  EXPECT_EQ("4.2.0", sent.Header("Z-AGENTVER"));
  EXPECT_EQ("85944171f73967e8", sent.Header("Z-PAYLOADHASH")) << "FNV-1a of what was given, not of what is sent";
  EXPECT_EQ("application/json", sent.Header("Content-Type"));
  EXPECT_EQ("LZMA", sent.Header("Content-Encoding"));
  EXPECT_EQ(std::to_string(sent.body.size()), sent.Header("Content-Length"));
  EXPECT_EQ("(absent)", sent.Header("Transfer-Encoding")) << "never in chunks";
  EXPECT_THAT(sent.Header("X-OSTL-Authorization"), StartsWith("ZHmacV1Auth agent-1:"));
  EXPECT_EQ(payload_, LzmaCompression().Decompress(Bytes(sent.body.begin(), sent.body.end())));
}

TEST_F(HttpUploaderTest, SaysWhatItDoes) {
  FakeHttpServer server({FakeHttpServer::Answer("200 All well")});
  UploaderTo(server.Url()).Upload("application/json", payload_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION,
                       "HttpUploader: Sending 6 bytes of type application/json to: " + server.Url()));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "HttpUploader: Uploaded 6 bytes successfully. (All well)"));
}

TEST_F(HttpUploaderTest, MapsEveryKindOfAnswer) {
  EXPECT_EQ(0, HttpUploader::OutcomeOf(200));
  EXPECT_EQ(0, HttpUploader::OutcomeOf(202));
  EXPECT_EQ(100001, HttpUploader::OutcomeOf(204));
  EXPECT_EQ(100016, HttpUploader::OutcomeOf(404));
  EXPECT_EQ(100013, HttpUploader::OutcomeOf(409));
  EXPECT_EQ(100028, HttpUploader::OutcomeOf(415));
  EXPECT_EQ(100021, HttpUploader::OutcomeOf(424));
  EXPECT_EQ(100022, HttpUploader::OutcomeOf(0));
  EXPECT_EQ(100023, HttpUploader::OutcomeOf(500));
  for (const long code : {400L, 401L, 429L, 499L}) EXPECT_EQ(100021, HttpUploader::OutcomeOf(code)) << code;
  for (const long code : {100L, 201L, 203L, 206L, 301L, 399L}) EXPECT_EQ(100017, HttpUploader::OutcomeOf(code)) << code;
  for (const long code : {501L, 503L, 599L}) EXPECT_EQ(100020, HttpUploader::OutcomeOf(code)) << code;
}

TEST_F(HttpUploaderTest, TakesAnAcceptedAnswerForSuccess) {
  EXPECT_EQ(0, OutcomeOfAnswer("202 Accepted"));
}

TEST_F(HttpUploaderTest, TakesAnswersWithoutContentForAFailureCode) {
  EXPECT_EQ(100001, OutcomeOfAnswer("204 No Content"));
}

TEST_F(HttpUploaderTest, LogsSuccessForACreatedAnswerAndMapsItToUnexpected) {
  EXPECT_EQ(100017, OutcomeOfAnswer("201 Created"));
  EXPECT_TRUE(log_.Has("HttpUploader: Uploaded 6 bytes successfully. (Created)"));
}

TEST_F(HttpUploaderTest, ReportsARefusalWithItsReason) {
  EXPECT_EQ(100021, OutcomeOfAnswer("401 Unauthorized"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "HttpUploader: Upload failed, status code: 6"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "HttpUploader: Upload failed. (Unauthorized)"));
}

TEST_F(HttpUploaderTest, GivesNoAnswerAfterItsRetries) {
  FakeHttpServer server({FakeHttpServer::kReset});
  HttpUploader uploader = UploaderTo(server.Url());
  EXPECT_EQ(100022, uploader.Upload("application/json", payload_));
  EXPECT_EQ(4U, server.Requests().size()) << "the first attempt and three more";
  EXPECT_EQ(0, uploader.LastHttpStatus());
}

TEST_F(HttpUploaderTest, SendsTheSameUploadAgainInARetry) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy"), FakeHttpServer::Answer("200 OK")});
  EXPECT_EQ(0, UploaderTo(server.Url()).Upload("application/json", payload_));
  const auto sent = server.Requests();
  ASSERT_EQ(2U, sent.size());
  EXPECT_EQ(sent[0].Header("Z-REQID"), sent[1].Header("Z-REQID"));
  EXPECT_EQ(sent[0].body, sent[1].body) << "compressed once, not twice";
}

TEST_F(HttpUploaderTest, RemembersCodeAndCorrelationOfTheLastUpload) {
  FakeHttpServer server({FakeHttpServer::Answer("404 Not Found"), FakeHttpServer::Answer("202 Accepted")});
  HttpUploader uploader = UploaderTo(server.Url());
  EXPECT_EQ(0, uploader.LastHttpStatus());
  EXPECT_EQ("", uploader.LastCorrelationId());
  uploader.Upload("application/json", payload_);
  EXPECT_EQ(404, uploader.LastHttpStatus());
  EXPECT_EQ(server.Requests().at(0).Header("Z-REQID"), uploader.LastCorrelationId());
  uploader.Upload("application/json", payload_);
  EXPECT_EQ(202, uploader.LastHttpStatus());
  EXPECT_EQ(server.Requests().at(1).Header("Z-REQID"), uploader.LastCorrelationId());
}

TEST_F(HttpUploaderTest, GoesWhereItIsTold) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  HttpUploader uploader = UploaderTo("http://127.0.0.1:1/");
  uploader.SetTarget(server.Url("/moved"));
  EXPECT_EQ(server.Url("/moved"), uploader.GetTarget());
  EXPECT_EQ(0, uploader.Upload("application/json", payload_));
  EXPECT_EQ("/moved", server.Requests().at(0).target);
}

TEST_F(HttpUploaderTest, WarnsOfAnIndexedHeaderThatDoesNotExist) {
  HttpUploader uploader = UploaderTo("http://127.0.0.1:1/");
  uploader.SetIndexedHeader(2, "x");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "HttpUploader: There is no indexed header 2"));
}

TEST_F(HttpUploaderTest, CancelEndsTheUploadInFlightAndEveryLaterOne) {
  FakeHttpServer server({FakeHttpServer::kHang});
  HttpUploader uploader = UploaderTo(server.Url());
  auto upload = std::async(std::launch::async, [&] { return uploader.Upload("application/json", payload_); });
  server.AwaitRequests(1);
  uploader.Cancel();
  EXPECT_EQ(100022, upload.get());
  EXPECT_TRUE(
      log_.Has("HttpUploader: Upload failed due to http exception: Response isn't available for cancelled HTTP "
               "request for " +
               server.Url()));
  EXPECT_EQ(100022, uploader.Upload("application/json", payload_)) << "the server would let it hang";
}

TEST_F(HttpUploaderTest, SendsNothingOnceCancelled) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  HttpUploader uploader = UploaderTo(server.Url());
  uploader.Cancel();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(100022, uploader.Upload("application/json", payload_));
  EXPECT_TRUE(server.Requests().empty());
  EXPECT_EQ(10, log_.Count("HttpUploader: Upload failed due to http exception: Cancelled before it began"));
  EXPECT_FALSE(log_.Has("HttpUploader: Sending "));
}

TEST_F(HttpUploaderTest, NeverThrows) {
  service_.Stop();
  EXPECT_EQ(100022, UploaderTo("http://127.0.0.1:1/").Upload("application/json", payload_));
  EXPECT_TRUE(log_.Has("HttpUploader: Upload failed due to http exception: HttpService is not running"));
  hmac_ = std::make_shared<HmacConfig>("customer-1", "agent-1", "activation-1", true, HmacVersion::HmacV3);
  EXPECT_EQ(100022, UploaderTo("http://127.0.0.1:1/").Upload("application/json", payload_));
  EXPECT_TRUE(log_.Has("HttpUploader: Upload failed. (Hmac V3 is not supported for fedramp)"));
}

TEST_F(HttpUploaderTest, TakesA200ForAnAcceptanceThoughItsBodyCannotBeRead) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "Content-Encoding: LZMA\r\n", "not compressed")});
  EXPECT_EQ(0, UploaderTo(server.Url()).Upload("application/json", payload_));
  EXPECT_EQ(1U, server.Requests().size());
  EXPECT_TRUE(
      log_.Has("HttpUploader: Upload failed. (Response processing failed, error: LzmaHttpInterceptor failed to "
               "decompress response payload: "));
  EXPECT_FALSE(log_.Has("HttpUploader: Upload failed. (OK)"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_INFORMATION, "HttpUploader: The upload was accepted all the same, HTTP code 200"));
}

TEST_F(HttpUploaderTest, SaysWhatBecameOfTheConnectionBehindA200) {
  const std::string half = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf";
  for (const auto& [end, reason] : {std::pair{FakeHttpServer::kReset, "Failure when receiving data from the peer"},
                                    std::pair{FakeHttpServer::kHang, "Timeout was reached"}}) {
    FakeHttpServer server({half + end});
    HttpUploader::Settings settings = SettingsFor(server.Url());
    settings.request_timeout = 1;
    settings.max_attempts = 0;
    EXPECT_EQ(0, HttpUploader(service_, hmac_, settings).Upload("application/json", payload_));
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, std::string("HttpUploader: Upload failed. (") + reason + ")"));
  }
  EXPECT_EQ(2, log_.Count("HttpUploader: The upload was accepted all the same, HTTP code 200"));
  EXPECT_FALSE(log_.Has("(OK)"));
}

TEST_F(HttpUploaderTest, ForgetsNoAcceptanceOverWhatLaterAttemptsBring) {
  const auto broken = [](const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: 100\r\n\r\nhalf" + FakeHttpServer::kReset;
  };
  for (const auto& last : {FakeHttpServer::Answer("409 Conflict"), FakeHttpServer::Answer("204 No Content"),
                           FakeHttpServer::Answer("503 Busy"), std::string(FakeHttpServer::kReset)}) {
    for (const auto& [status, code] : {std::pair{"200 OK", 200}, std::pair{"202 Accepted", 202}}) {
      FakeHttpServer server({broken(status), last});
      HttpUploader uploader = UploaderTo(server.Url());
      EXPECT_EQ(0, uploader.Upload("application/json", payload_)) << status << " and " << last;
      EXPECT_EQ(code, uploader.LastHttpStatus());
      EXPECT_LT(1U, server.Requests().size()) << "the attempts go as for any answer that breaks off";
    }
  }
  FakeHttpServer server({broken("201 Created"), FakeHttpServer::Answer("409 Conflict")});
  HttpUploader uploader = UploaderTo(server.Url());
  EXPECT_EQ(100013, uploader.Upload("application/json", payload_)) << "201 is no acceptance";
  EXPECT_EQ(409, uploader.LastHttpStatus());
}

TEST_F(HttpUploaderTest, AnAcceptanceIsOfOneUploadOnly) {
  FakeHttpServer server({std::string("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n") + FakeHttpServer::kReset,
                         FakeHttpServer::Answer("409 Conflict")});
  HttpUploader uploader = UploaderTo(server.Url());
  EXPECT_EQ(0, uploader.Upload("application/json", payload_));
  EXPECT_EQ(100013, uploader.Upload("application/json", payload_));
}

// Each byte comes in time, and the whole never does.
TEST_F(HttpUploaderTest, WaitsForNoAnswerThatTricklesLongerThanForOneThatStalls) {
  const auto begin = std::chrono::steady_clock::now();
  for (const auto& [start, outcome] : {std::pair{"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n", 0},
                                       std::pair{"HTTP/1.1 200 OK\r\nX-Endless: ", 0},
                                       std::pair{"HTTP/1.1 503 Busy\r\nContent-Length: 1000000\r\n\r\n", 100020}}) {
    FakeHttpServer server({std::string(start) + FakeHttpServer::kTrickle});
    HttpUploader::Settings settings = SettingsFor(server.Url());
    settings.request_timeout = 1;
    settings.max_attempts = 0;
    EXPECT_EQ(outcome, HttpUploader(service_, hmac_, settings).Upload("application/json", payload_)) << start;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << "three times one second";
  EXPECT_EQ(3, log_.Count("Network error with CURL_STATUS_CODE 28 "));
}

TEST_F(HttpUploaderTest, TakesAnInterimAnswerThatStaysTheLastForUnexpected) {
  FakeHttpServer server({"HTTP/1.1 100 Continue\r\n\r\n"});
  HttpUploader uploader = UploaderTo(server.Url());
  EXPECT_EQ(100017, uploader.Upload("application/json", payload_));
  EXPECT_EQ(100, uploader.LastHttpStatus());
}

TEST_F(HttpUploaderTest, SendsTheSameFileUnderTheSameIdAndEverythingElseUnderARandomOne) {
  FakeHttpServer server({FakeHttpServer::Answer("500 Oops"), FakeHttpServer::Answer("200 OK")});
  UploadSource source;
  source.path = "/spool/fim.0001";
  source.inode = 7;
  HttpUploader::Settings settings = SettingsFor(server.Url());
  settings.max_attempts = 0;
  HttpUploader uploader(service_, hmac_, settings);
  HttpUploader after_a_restart(service_, hmac_, settings);
  uploader.SetSource(source);
  EXPECT_EQ(100023, uploader.Upload("application/json", payload_));
  after_a_restart.SetSource(source);
  EXPECT_EQ(0, after_a_restart.Upload("application/json", payload_));
  EXPECT_EQ(0, after_a_restart.Upload("application/json", payload_)) << "without a file";
  EXPECT_EQ(0, after_a_restart.Upload("application/json", payload_));
  const auto sent = server.Requests();
  EXPECT_EQ(source.MakeRequestId("agent-1"), sent.at(0).Header("Z-REQID"));
  EXPECT_EQ(sent.at(0).Header("Z-REQID"), sent.at(1).Header("Z-REQID"));
  EXPECT_NE(sent.at(1).Header("Z-REQID"), sent.at(2).Header("Z-REQID"));
  EXPECT_NE(sent.at(2).Header("Z-REQID"), sent.at(3).Header("Z-REQID"));
}

TEST_F(HttpUploaderTest, RaisesTheAlarmAboutARefusedFileAndAClockThatIsOff) {
  FakeHttpServer server({FakeHttpServer::Answer("400 Bad Request"), FakeHttpServer::Answer("400 Bad Request"),
                         FakeHttpServer::Answer("400 Bad Request"),
                         FakeHttpServer::Answer("401 Unauthorized", "Date: Wed, 01 May 2019 10:15:29 GMT\r\n")});
  HttpUploader uploader = UploaderTo(server.Url());
  UploadSource source;
  source.path = "/spool/fim.0001";
  for (int run = 0; run < 4; ++run) {
    uploader.SetSource(source);
    uploader.Upload("application/json", payload_);
  }
  EXPECT_EQ(1, log_.Count("HttpUploader: The platform has refused the file /spool/fim.0001 3 times"));
  EXPECT_EQ(1, log_.Count("HttpUploader: The clock of this host is "));
}

TEST_F(HttpUploaderTest, WritesAPayloadHashWithItsLeadingZeros) {
  Bytes payload;
  for (unsigned i = 0; payload.empty() || util::Fnv1a64(payload.data(), payload.size()) >> 56U != 0; ++i) {
    const std::string text = std::to_string(i);
    payload.assign(text.begin(), text.end());
  }
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  UploaderTo(server.Url()).Upload("application/json", payload);
  char expected[17];
  std::snprintf(expected, sizeof(expected), "%016llx",
                static_cast<unsigned long long>(util::Fnv1a64(payload.data(), payload.size())));
  EXPECT_EQ(expected, server.Requests().at(0).Header("Z-PAYLOADHASH"));
  EXPECT_THAT(server.Requests().at(0).Header("Z-PAYLOADHASH"), StartsWith("00"));
}

// Cancels the upload while its proxies are looked for: behind its preparation, before its request is queued.
class CancellingProxies final : public ProxyManager {
 public:
  HttpProxy FetchProxiesForRequest(const std::string&) override {
    uploader->Cancel();
    return HttpProxy();
  }
  HttpUploader* uploader = nullptr;
};

TEST_F(HttpUploaderTest, EndsAnUploadThatWasCancelledWhileItWasPrepared) {
  FakeHttpServer server({FakeHttpServer::kHang});
  auto proxies = std::make_unique<CancellingProxies>();
  CancellingProxies& hook = *proxies;
  HttpService service("", std::move(proxies));
  service.Start();
  HttpUploader uploader(service, hmac_, SettingsFor(server.Url()));
  hook.uploader = &uploader;
  EXPECT_EQ(100022, uploader.Upload("application/json", payload_)) << "the server would let it hang";
  EXPECT_TRUE(log_.Has("Response isn't available for cancelled HTTP request for " + server.Url()));
}

TEST_F(HttpUploaderTest, NeverSendsWithoutABoundInTime) {
  HttpUploader::Settings settings = SettingsFor("http://127.0.0.1:1/");
  settings.connection_timeout = settings.request_timeout = 0;
  const HttpUploader uploader(service_, hmac_, settings);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "HttpUploader: connection_timeout is 0, using 30 seconds"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "HttpUploader: request_timeout is 0, using 60 seconds"));
}

TEST_F(HttpUploaderTest, LogsNeitherPayloadNorKeys) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  UploaderTo(server.Url()).Upload("application/json", payload_);
  EXPECT_FALSE(log_.Has("foobar"));
  EXPECT_FALSE(log_.Has(hmac_->GetKeyStore().Get("HmacV1")));
  EXPECT_FALSE(log_.Has("activation-1"));
}

}  // namespace
}  // namespace zagent::common
