#include "common/src/http/HttpErrorParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/src/http/DefaultHttpPostProcessor.h"
#include "common/src/http/HttpService.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "tests/fakes/ClosedResponse.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using Poco::Message;
using ::testing::ElementsAre;

constexpr const char* kUrl = "https://platform.example/v1/fim";

// A request that is finished, with the answer that a test gives it.
class FinishedRequest final : public HttpRequest {
 public:
  FinishedRequest(long code, const std::string& body, bool is_proxys_own = false) {
    response_.SetHttpCode(code);
    response_.SetProxysOwn(is_proxys_own);
    response_.UpdatePayload({body.begin(), body.end()});
  }
  [[nodiscard]] const std::string& GetUrl() const override { return url_; }
  [[nodiscard]] State GetState() const override { return State::Failed; }
  const HttpResponse& GetResponse() const override { return response_; }
  void Cancel() override {}
  [[nodiscard]] HttpMethod GetMethod() const override { return HttpMethod::Post; }

 private:
  const std::string url_ = kUrl;
  InMemoryHttpResponse response_;
};

class HttpErrorParserTest : public ::testing::Test {
 protected:
  static std::optional<HttpErrorRecord> Parse(const std::string& body, long status = 400) {
    return HttpErrorParser::ParseErrorPayload(kUrl, status,
                                              {reinterpret_cast<const unsigned char*>(body.data()), body.size()});
  }
  void Process(long code, const std::string& body) { parser_.Process(FinishedRequest(code, body)); }

  fakes::LogCapture log_;
  HttpErrorParser parser_;
};

TEST_F(HttpErrorParserTest, ReadsActionAndErrorCode) {
  const auto record = Parse(R"({"errorCode": 17, "action": 7, "message": "late"})", 401);
  ASSERT_TRUE(record);
  EXPECT_EQ(kUrl, record->url);
  EXPECT_EQ(401, record->http_status);
  EXPECT_EQ(7, record->action);
  EXPECT_EQ(17, record->error_code);
  EXPECT_EQ("FAILURE_TIMESTAMP_WINDOW_EXCEEDED", record->error_type);
  EXPECT_EQ("Timestamp outside allowed window (possible clock skew or delayed request)", record->error_text);
  EXPECT_EQ(R"({"errorCode": 17, "action": 7, "message": "late"})", record->raw_payload);
}

TEST_F(HttpErrorParserTest, NumbersTheErrorsFromOne) {
  EXPECT_STREQ("NONE", LookUpErrorCode(0).name);
  EXPECT_STREQ("ERROR_INVALID_HEADERS", LookUpErrorCode(1).name);
  EXPECT_STREQ("Agent identity validation failed", LookUpErrorCode(5).text);
  EXPECT_STREQ("FAILURE_HASH_MISMATCH", LookUpErrorCode(20).name);
  EXPECT_STREQ("REVOKE", LookUpErrorCode(25).name);
  EXPECT_STREQ("Soft Reprovision Agent", LookUpErrorCode(26).text);
  EXPECT_STREQ("INTERNAL_FAILURE", LookUpErrorCode(28).name);
}

TEST_F(HttpErrorParserTest, HasWordsForAnErrorCodeThatItDoesNotKnow) {
  for (const char* number : {"29", "-1", "9223372036854775807", "-9223372036854775808"}) {
    const auto record = Parse(std::string(R"({"errorCode": )") + number + "}");
    ASSERT_TRUE(record) << number;
    EXPECT_EQ("No recognized error code", record->error_text) << number;
    EXPECT_EQ("", record->error_type) << number;
  }
}

TEST_F(HttpErrorParserTest, KeepsTheDefaultsOfMembersThatAreAbsentOrOfAnotherType) {
  for (const char* body : {"{}", R"({"errorCode": "17", "action": 1.5})", R"({"errorCode": 18446744073709551615})",
                           R"({"action": null, "errorCode": [17]})"}) {
    const auto record = Parse(body);
    ASSERT_TRUE(record) << body;
    EXPECT_EQ(0, record->action) << body;
    EXPECT_EQ("NONE", record->error_type) << body;
  }
}

TEST_F(HttpErrorParserTest, ShowsABodyThatIsNoJsonInBase64) {
  EXPECT_FALSE(Parse("<html>\x01</html>", 502));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "HttpErrorParser: Failed to json parse error payload for URL: https://platform.example/v1/fim, "
                       "HTTP: 502, response payload base64: PGh0bWw+ATwvaHRtbD4="));
  for (const char* body : {"[]", "17", "\"text\"", "{} {}", "{", "null"}) EXPECT_FALSE(Parse(body)) << body;
}

TEST_F(HttpErrorParserTest, ShowsOnlyTheBeginningOfALongBody) {
  EXPECT_FALSE(Parse(std::string(60'000, 'x')));
  for (const auto& line : log_.Lines()) EXPECT_LT(line.getText().size(), 6000U);
  EXPECT_TRUE(log_.Has("== and more"));
}

TEST_F(HttpErrorParserTest, ReadsNoBodyBeyondItsBound) {
  const std::string blanks(HttpErrorParser::kMaxParsedBody - 2, ' ');
  EXPECT_TRUE(Parse("{" + blanks + "}"));
  EXPECT_FALSE(Parse("{" + blanks + " }"));
}

TEST_F(HttpErrorParserTest, StandsNestingOfAnyDepth) {
  EXPECT_FALSE(Parse(std::string(65'000, '[')));
  const auto record = Parse(R"({"action": 2, "deep": )" + std::string(30'000, '[') + std::string(30'000, ']') + "}");
  ASSERT_TRUE(record);
  EXPECT_EQ(2, record->action);
}

TEST_F(HttpErrorParserTest, TellsAnEmptyBody) {
  EXPECT_FALSE(Parse("", 503));
  EXPECT_TRUE(log_.Has("HttpErrorParser: Payload is empty for URL: https://platform.example/v1/fim, HTTP: 503"));
}

TEST_F(HttpErrorParserTest, SummarizesAFailedRequest) {
  Process(403, R"({"errorCode":25,"action":1})");
  EXPECT_TRUE(
      log_.Has("HttpErrorParser: Received response for URL: https://platform.example/v1/fim, error payload: "
               R"({"errorCode":25,"action":1})"));
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION,
                       "HttpErrorParser: URL: https://platform.example/v1/fim, HTTP: 403, Action: 1, ErrorCode: 25, "
                       "DetectedErrorType: REVOKE, ErrorInfo: Revoke Agent"));
}

TEST_F(HttpErrorParserTest, IgnoresWhatIsNoError) {
  for (const long code : {0L, 200L, 302L, 399L, 600L}) {
    Process(code, R"({"action":1})");
    EXPECT_TRUE(log_.Has("HttpErrorParser: Ignoring HTTP status code: " + std::to_string(code)));
  }
  EXPECT_FALSE(log_.Has("Action: ")) << log_.All();
  EXPECT_FALSE(log_.Has("error payload"));
}

TEST_F(HttpErrorParserTest, BelievesNoProxy) {
  int executed = 0;
  parser_.SetActionHandler("revoke", [&](const HttpErrorRecord&) { ++executed; });
  const std::string body = R"({"errorCode":25,"action":1})";
  parser_.Process(FinishedRequest(403, body, true));
  EXPECT_EQ(0, executed);
  EXPECT_TRUE(log_.Has("HttpErrorParser: Ignoring HTTP status code: 403"));
  parser_.Process(FinishedRequest(403, body, false));
  EXPECT_EQ(1, executed);
}

TEST_F(HttpErrorParserTest, ShowsNoControlBytesOfABody) {
  Process(400, "{}\r\nforged line\x1b[2J");
  EXPECT_TRUE(log_.Has("error payload: {}??forged line?[2J"));
}

TEST_F(HttpErrorParserTest, ExecutesTheActionThatTheAnswerCallsFor) {
  std::vector<std::string> executed;
  parser_.SetActionHandler("rotate_secret",
                           [&](const HttpErrorRecord& record) { executed.push_back(record.error_type); });
  Process(401, R"({"errorCode":19,"action":4})");
  EXPECT_THAT(executed, ElementsAre("FAILURE_SENSOR_SECRET_EXPIRED"));
  EXPECT_TRUE(log_.Has("HttpPostProcessor: Executing post action 'rotate_secret' for URL: " + std::string(kUrl)));
}

TEST_F(HttpErrorParserTest, TellsAnActionThatNobodyHandles) {
  Process(401, R"({"action":1})");
  Process(401, R"({"action":77})");
  EXPECT_TRUE(log_.Has("HttpPostProcessor: No post action 'revoke' found for URL: " + std::string(kUrl)));
  EXPECT_TRUE(log_.Has("HttpPostProcessor: No post action '77' found for URL: " + std::string(kUrl)));
}

TEST_F(HttpErrorParserTest, PassesOverWhatIsToBePassedOver) {
  Process(401, "{}");
  parser_.SetActionHandler("revoke", {});
  Process(401, R"({"action":1})");
  Process(401, R"({"action":0})");
  EXPECT_EQ(2, log_.Count("HttpPostProcessor: Ignoring action 'none' for URL: " + std::string(kUrl)));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "HttpPostProcessor: Ignoring action 'none' for URL: " + std::string(kUrl)));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_DEBUG, "HttpPostProcessor: Ignoring action 'revoke' for URL: " + std::string(kUrl)));
  EXPECT_FALSE(log_.Has("No post action"));
}

TEST_F(HttpErrorParserTest, SwallowsWhatAHandlerThrows) {
  parser_.SetActionHandler("revoke", [](const HttpErrorRecord&) { throw std::runtime_error("not now"); });
  parser_.SetActionHandler("rotate_secret", [](const HttpErrorRecord&) { throw 7; });
  Process(401, R"({"action":1})");
  Process(401, R"({"action":4})");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "HttpPostProcessor: Exception occurred during post processing for URL: " +
                                                std::string(kUrl) + ", Error: not now"));
  EXPECT_TRUE(log_.Has("Error: unknown"));
}

class ClosedRequest final : public HttpRequest {
 public:
  ClosedRequest() { response_.SetHttpCode(500); }
  [[nodiscard]] const std::string& GetUrl() const override { return url_; }
  [[nodiscard]] State GetState() const override { return State::Failed; }
  const HttpResponse& GetResponse() const override { return response_; }
  void Cancel() override {}
  [[nodiscard]] HttpMethod GetMethod() const override { return HttpMethod::Get; }

 private:
  const std::string url_ = kUrl;
  fakes::ClosedResponse response_;
};

TEST_F(HttpErrorParserTest, TellsABodyThatCannotBeHad) {
  parser_.Process(ClosedRequest());
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "HttpErrorParser: Failed to get payload for parsing error for URL: " + std::string(kUrl)));
}

class DefaultHttpPostProcessorTest : public ::testing::Test {
 protected:
  // What the service does about one answer.
  void Answer(const std::string& body) {
    fakes::FakeHttpServer server({fakes::FakeHttpServer::Answer("403 Forbidden", "Z-SRV: x\r\n", body)});
    service_.Start();
    service_.Get(server.Url(), {}, {}, {})->GetResponse();
    service_.Stop();  // what follows the response is done, too
  }

  fakes::LogCapture log_;
  HttpService service_{""};
};

TEST_F(DefaultHttpPostProcessorTest, WantsARecoveryHandler) {
  EXPECT_FALSE(ConfigureDefaultHttpPostProcessor(service_, {}));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "ConfigureDefaultHttpPostProcessor: Mandatory Http Error Recovery Handler not provided"));
}

TEST_F(DefaultHttpPostProcessorTest, ParsesErrorsBeforeAnybodyHasConfiguredIt) {
  Answer(R"({"errorCode":25,"action":1})");
  EXPECT_TRUE(log_.Has("DetectedErrorType: REVOKE"));
  EXPECT_TRUE(log_.Has("HttpPostProcessor: No post action 'revoke' found"));
}

TEST_F(DefaultHttpPostProcessorTest, HandsRevocationAndReprovisioningToTheRecovery) {
  for (const char* action : {"1", "2", "3"}) {
    std::vector<std::int64_t> recovered;
    ASSERT_TRUE(ConfigureDefaultHttpPostProcessor(
        service_, [&](const HttpErrorRecord& record) { recovered.push_back(record.action); }));
    Answer(std::string(R"({"action":)") + action + "}");
    EXPECT_THAT(recovered, ElementsAre(std::stoi(action)));
  }
  EXPECT_TRUE(log_.Has("Configured default http post processing action handlers with HttpService"));
}

TEST_F(DefaultHttpPostProcessorTest, OnlyLogsTheOtherSixActions) {
  const std::vector<std::string> words = {"rotate_secret",     "renew_platform_key", "register_public_key",
                                          "synchronize_clock", "upload_metadata",    "raise_authentication"};
  bool recovered = false;
  ASSERT_TRUE(ConfigureDefaultHttpPostProcessor(service_, [&](const HttpErrorRecord&) { recovered = true; }));
  for (std::size_t i = 0; i < words.size(); ++i) {
    Answer(R"({"errorCode":21,"action":)" + std::to_string(4 + i) + "}");
    EXPECT_TRUE(log_.Has("The platform asks the agent for '" + words[i] + "': Higher authentication level required"));
  }
  EXPECT_FALSE(recovered);
}

TEST_F(DefaultHttpPostProcessorTest, LeavesTheAgentsIdentityToTheAgent) {
  ASSERT_TRUE(ConfigureDefaultHttpPostProcessor(service_, LogRecoveryAction));
  Answer(R"({"errorCode":26,"action":2})");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "The platform asks the agent for 'reprovision_with_same_agent_id': Soft Reprovision Agent"));
}

}  // namespace
}  // namespace zagent::common
