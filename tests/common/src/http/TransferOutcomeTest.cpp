#include "common/src/http/TransferOutcome.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

class ClassifyTest : public ::testing::Test {
 protected:
  ClassifyTest() { outcome_.url = "https://p/"; }

  HttpStatus ByCode(long code) {
    outcome_.response_code = code;
    return Classify(outcome_).status;
  }
  HttpStatus ByResult(int result) {
    outcome_.curl_code = result;
    return Classify(outcome_).status;
  }

  fakes::LogCapture log_;
  TransferOutcome outcome_;
};

TEST_F(ClassifyTest, JudgesEveryHttpCode) {
  for (long code = 0; code <= 599; ++code) {
    HttpStatus expected = HttpStatus::Unknown;
    if (code >= 200 && code <= 204) expected = HttpStatus::Success;
    if (code == 206) expected = HttpStatus::PartialSuccess;
    if (code >= 400 && code <= 499) expected = HttpStatus::ClientError;
    if (code == 500 || code == 502 || code == 503 || code == 504) expected = HttpStatus::ServerError;
    EXPECT_EQ(expected, ByCode(code)) << code;
  }
}

TEST_F(ClassifyTest, SaysWhatItSaw) {
  ByCode(200);
  ByCode(202);
  ByCode(206);
  ByCode(404);
  ByCode(501);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Http request completed successfully: https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Http request accepted, return code: 202"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_INFORMATION, "Received http response with HTTP_STATUS_CODE 206 for https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Received http error with HTTP_STATUS_CODE 404 for https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Unexpected http response 501 for https://p/"));
  EXPECT_TRUE(log_.Has("Curl request is successful for url https://p/"));
}

TEST_F(ClassifyTest, BlamesAProxyForAnErrorThatThePlatformDidNotMark) {
  outcome_.proxy_used = true;
  EXPECT_EQ(HttpStatus::ProxyError, ByCode(503));
  EXPECT_EQ(HttpStatus::ProxyError, ByCode(403));
  EXPECT_TRUE(log_.Has("Header Z-SRV is not present, so failover to next proxy."));
}

TEST_F(ClassifyTest, BlamesThePlatformForAnErrorThatItMarked) {
  outcome_.proxy_used = true;
  outcome_.from_platform = true;
  EXPECT_EQ(HttpStatus::ServerError, ByCode(503));
  EXPECT_EQ(HttpStatus::ClientError, ByCode(403));
  EXPECT_TRUE(log_.Has("Header Z-SRV is present, go with the retry attempts configured."));
}

TEST_F(ClassifyTest, TakesTheAnswerToConnectForTheResponseCode) {
  outcome_.proxy_used = true;
  outcome_.connect_code = 407;
  const TransferVerdict verdict = Classify(outcome_);
  EXPECT_EQ(407, verdict.http_code);
  EXPECT_EQ(HttpStatus::ProxyError, verdict.status) << "a client error that the platform did not mark";
  EXPECT_TRUE(log_.Has("Received proxy connect code: 407"));
  EXPECT_TRUE(log_.Has("Received http error with HTTP_STATUS_CODE 407 for https://p/"));
  outcome_.curl_code = CURLE_RECV_ERROR;
  EXPECT_EQ(HttpStatus::NetworkError, Classify(outcome_).status);
  EXPECT_EQ(407, Classify(outcome_).http_code);
}

TEST_F(ClassifyTest, LeavesAConnectCodeAloneThatIsNoError) {
  outcome_.proxy_used = true;
  outcome_.connect_code = 200;
  EXPECT_EQ(0, Classify(outcome_).http_code);
  outcome_.connect_code = 407;
  outcome_.proxy_used = false;
  EXPECT_EQ(0, Classify(outcome_).http_code);
}

TEST_F(ClassifyTest, JudgesByTheResultOfLibcurl) {
  EXPECT_EQ(HttpStatus::ProxyError, ByResult(5));
  for (const int code : {6, 7, 28, 55, 56}) EXPECT_EQ(HttpStatus::NetworkError, ByResult(code)) << code;
  EXPECT_EQ(HttpStatus::ServerError, ByResult(22));
  EXPECT_EQ(HttpStatus::Aborted, ByResult(42));
  EXPECT_EQ(HttpStatus::Unknown, ByResult(60));
  EXPECT_EQ(HttpStatus::Unknown, ByResult(35));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Proxy error with CURL_STATUS_CODE 5 while accessing https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Network error with CURL_STATUS_CODE 28 accessing https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Http error with CURL_STATUS_CODE 22 while accessing https://p/"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "HTTP request for https://p/ was aborted"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "Unknown curl error with CURL_STATUS_CODE 60 while accessing https://p/"));
}

TEST_F(ClassifyTest, KeepsTheStatusOfATruncatedAnswer) {
  outcome_.response_code = 200;
  EXPECT_EQ(HttpStatus::Success, ByResult(CURLE_PARTIAL_FILE));
}

TEST_F(ClassifyTest, BlamesTheProxyForItsOwnCertificateOnly) {
  outcome_.proxy_used = true;
  EXPECT_EQ(HttpStatus::Unknown, ByResult(60));
  outcome_.proxy_certificate_failed = true;
  EXPECT_EQ(HttpStatus::ProxyError, ByResult(60));
  EXPECT_TRUE(log_.Has("SSL certificate error 60 while accessing https://p/"));
}

TEST_F(ClassifyTest, TakesACancelThatEndedAsWriteErrorForAnAbort) {
  outcome_.response_code = 200;
  outcome_.cancelled = true;
  EXPECT_EQ(HttpStatus::Aborted, ByResult(CURLE_WRITE_ERROR));
  EXPECT_EQ(HttpStatus::Success, ByResult(CURLE_OK)) << "it had finished before";
}

TEST_F(ClassifyTest, MarksA22ThroughAProxyAsTheProxysOwn) {
  outcome_.proxy_used = true;
  EXPECT_EQ(HttpStatus::ProxyError, ByResult(22));
  outcome_.from_platform = true;
  EXPECT_EQ(HttpStatus::ServerError, ByResult(22));
}

}  // namespace
}  // namespace zagent::common
