#include "common/src/http/interceptors/UrlUpgraderHttpInterceptor.h"

#include <gtest/gtest.h>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpService.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using fakes::FakeHttpServer;
using Poco::Message;
using std::chrono::hours;
using UrlState = ModuleUrlStateTable::UrlState;

constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";
constexpr const char* kPlain = "https://platform.example/HostWarden/fim/events?part=2";
constexpr const char* kIoc = "/HostWarden/linuxagentevent/v1/customer/c/agent/a";
constexpr const char* kAhs = "/HostWarden/v1/customer/c/agent/a/status";
constexpr const char* kUpgraded = "https://platform.example/Ostl/HostWarden/fim/events?part=2";

class UrlUpgraderHttpInterceptorTest : public ::testing::Test {
 protected:
  std::string Upgrade(const std::string& url) { return Upgrade(interceptor_, url); }
  static std::string Upgrade(HttpInterceptor& interceptor, std::string url) {
    std::vector<unsigned char> payload;
    HttpHeaders headers;
    interceptor.ProcessRequest(url, payload, headers, "POST");
    EXPECT_TRUE(headers.empty());
    return url;
  }
  void End(long code, const std::string& body = "", HttpStatus status = HttpStatus::ClientError,
           bool is_proxys_own = false) {
    const HttpHeaders headers;
    interceptor_.OnAttemptEnded({kUpgraded,
                                 status,
                                 code,
                                 headers,
                                 {reinterpret_cast<const unsigned char*>(body.data()), body.size()},
                                 is_proxys_own});
  }
  UrlState Fim() const { return states_->Get("FIM"); }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::shared_ptr<ModuleUrlStateTable> states_ = std::make_shared<ModuleUrlStateTable>(kAgent, clock_);
  UrlUpgraderHttpInterceptor interceptor_{DefaultUrlUpgradeRows(), states_};
};

TEST_F(UrlUpgraderHttpInterceptorTest, TriesTheAuthenticatedUrlFirst) {
  EXPECT_EQ(kUpgraded, Upgrade(kPlain));
  EXPECT_EQ("https://h:8443/Ostl" + std::string(kIoc), Upgrade("https://h:8443" + std::string(kIoc)));
  EXPECT_EQ("https://h/Ostl" + std::string(kAhs), Upgrade("https://h" + std::string(kAhs)));
  EXPECT_TRUE(log_.Has("Module: FIM Url State updated, Old Url State: UNKNOWN, New Url State: AUTH"));
  EXPECT_TRUE(log_.Has("Module: IOC Url State updated"));
  EXPECT_TRUE(log_.Has("Module: AHS Url State updated"));
  (void)Upgrade(kPlain);
  EXPECT_EQ("https://h/Ostl/HostWarden/v1/fim/events", Upgrade("https://h/HostWarden/v1/fim/events"));
  EXPECT_EQ("https://h/Ostl/HostWarden/fim", Upgrade("https://h/HostWarden/fim"));
  EXPECT_EQ(3, log_.Count("Url State updated")) << "one line a change";
}

TEST_F(UrlUpgraderHttpInterceptorTest, LeavesAloneWhatFitsNoRow) {
  const std::vector<std::string> others = {
      "https://h/v1/fim",
      "https://h/Ostl/HostWarden/fim",
      "https://h/HostWarden/fimx",
      "https://h",
      "https://h/x?u=/HostWarden/fim",
      "https://h:port/HostWarden/fim",
      "",
      "https://h/x" + std::string(kIoc),
      "https://h" + std::string(kAhs) + "/x",
      "https://h/HostWarden/v1?x=/customer/c/agent/a/status",
      "https://h/v1/customer/c/agent/a/status",
  };
  for (const std::string& url : others) {
    EXPECT_EQ(url, Upgrade(url));
    EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "URL: " + url + " not qualified to upgrade"));
  }
  EXPECT_FALSE(log_.Has("Url State updated"));
}

TEST_F(UrlUpgraderHttpInterceptorTest, FallsBackWhenThePlatformHasNoSuchRoute) {
  for (const long code : {404L, 405L, 410L, 501L}) {
    states_->Set("FIM", UrlState::Auth);
    ASSERT_EQ(kUpgraded, Upgrade(kPlain));
    End(code, "no such\nroute", code == 501 ? HttpStatus::Unknown : HttpStatus::ClientError);
    EXPECT_EQ(UrlState::Unauth, Fim()) << code;
    EXPECT_EQ(kPlain, Upgrade(kPlain));
    EXPECT_TRUE(log_.Has(Message::PRIO_WARNING,
                         "Module: FIM auth route upgrade failed, fallback to unauthenticated url, server response: " +
                             std::to_string(code) + " no such?route"));
  }
  EXPECT_TRUE(log_.Has("Module: FIM Url State updated, Old Url State: AUTH, New Url State: UNAUTH"));
}

TEST_F(UrlUpgraderHttpInterceptorTest, StaysOnTheAuthenticatedUrlAfterAFailureOfAnotherKind) {
  ASSERT_EQ(kUpgraded, Upgrade(kPlain));
  End(401, R"({"errorCode":4})");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       R"(Module: FIM request auth failed, status: 401, server response: {"errorCode":4})"));
  EXPECT_TRUE(log_.Has("Module: FIM received error: Timestamp is invalid, Skipped URL fallback"));
  End(403, "forbidden");
  EXPECT_TRUE(log_.Has("Module: FIM request auth failed, status: 403, server response: forbidden"));
  EXPECT_TRUE(log_.Has("Module: FIM received error: 403, Skipped URL fallback"));
  End(503, "", HttpStatus::ServerError);
  EXPECT_TRUE(log_.Has("Module: FIM received error: 503, Skipped URL fallback"));
  EXPECT_EQ(2, log_.Count("request auth failed"));
  EXPECT_EQ(UrlState::Auth, Fim());
  EXPECT_EQ(kUpgraded, Upgrade(kPlain));
}

TEST_F(UrlUpgraderHttpInterceptorTest, BelievesNoProxyAboutTheRoute) {
  (void)Upgrade(kPlain);
  End(404, "", HttpStatus::ProxyError, true);
  End(501, "", HttpStatus::Unknown, true);
  End(404, "", HttpStatus::NetworkError, true);
  End(0, "", HttpStatus::NetworkError);
  End(200, "", HttpStatus::Success);
  EXPECT_EQ(UrlState::Auth, Fim());
  EXPECT_FALSE(log_.Has("Skipped URL fallback"));
}

TEST_F(UrlUpgraderHttpInterceptorTest, LearnsNothingFromAnAttemptOnThePlainUrl) {
  (void)Upgrade(kPlain);
  End(404);
  const auto failures = log_.Count("auth route upgrade failed");
  EXPECT_EQ(kPlain, Upgrade(kPlain));
  clock_.Advance(hours(20));
  End(404);
  EXPECT_EQ(failures, log_.Count("auth route upgrade failed"));
  (void)Upgrade("https://h/v1/fim");
  End(404);
  EXPECT_EQ(failures, log_.Count("auth route upgrade failed"));
  clock_.Advance(hours(4) + states_->GetCheckOffset());
  EXPECT_EQ(kUpgraded, Upgrade(kPlain)) << "the time ran from the failure on the authenticated URL";
}

TEST_F(UrlUpgraderHttpInterceptorTest, GoesBackOnlyAfterTheCheckPeriod) {
  (void)Upgrade(kPlain);
  End(404);
  clock_.Advance(hours(24) + states_->GetCheckOffset() - std::chrono::nanoseconds(1));
  EXPECT_EQ(kPlain, Upgrade(kPlain));
  EXPECT_TRUE(
      log_.Has("Module: FIM, Upgrade check duration offset = " + std::to_string(states_->GetCheckOffset().count()) +
               " hrs, min threshold upgrade check duration = 24 hrs"));
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_EQ(kUpgraded, Upgrade(kPlain));
  EXPECT_TRUE(log_.Has("Module: FIM Url State updated, Old Url State: UNAUTH, New Url State: AUTH"));
  End(404);
  EXPECT_EQ(kPlain, Upgrade(kPlain)) << "the period begins again";
}

TEST_F(UrlUpgraderHttpInterceptorTest, IsNotDeceivedByAWallClockThatIsSet) {
  (void)Upgrade(kPlain);
  End(404);
  clock_.SetWall(hours(1000));
  EXPECT_EQ(kPlain, Upgrade(kPlain));
}

TEST_F(UrlUpgraderHttpInterceptorTest, KeepsTheModulesApartAndSharesThemAmongChains) {
  (void)Upgrade(kPlain);
  End(404);
  const auto clone = interceptor_.Clone();
  EXPECT_EQ(kPlain, Upgrade(*clone, kPlain));
  EXPECT_EQ("https://h/Ostl" + std::string(kIoc), Upgrade(*clone, "https://h" + std::string(kIoc)));
}

TEST_F(UrlUpgraderHttpInterceptorTest, SpreadsTheChecksOfManyAgentsOverADay) {
  std::array<int, 24> agents{};
  for (int i = 0; i < 240; ++i) {
    const auto offset = ModuleUrlStateTable("agent-" + std::to_string(i), clock_).GetCheckOffset();
    ++agents.at(static_cast<std::size_t>(offset.count()));
  }
  for (const int count : agents) EXPECT_GT(count, 0);
  // FNV-1a of "foobar" is 0x85944171f73967e8.
  EXPECT_EQ(hours(0x85944171f73967e8U % 24), ModuleUrlStateTable("foobar", clock_).GetCheckOffset());
}

TEST_F(UrlUpgraderHttpInterceptorTest, RefusesAPatternThatIsNone) {
  EXPECT_THROW(UrlUpgraderHttpInterceptor({{"(", "FIM", "/Ostl"}}, states_), HttpInterceptorException);
}

// The fallback is no retry of its own: the policy decides, and what follows goes to the plain URL.
TEST_F(UrlUpgraderHttpInterceptorTest, HoldsTheFallbackForTheNextUpload) {
  FakeHttpServer server({FakeHttpServer::Answer("404 Not Found", "Z-SRV: x\r\n"), FakeHttpServer::Answer("200 OK")});
  HttpService service("");
  service.Start();
  const auto send = [&] {
    HttpInterceptors chain;
    chain.push_back(interceptor_.Clone());
    return service.Post(server.Url("/HostWarden/fim"), {}, {}, std::move(chain), {})->GetResponse().GetHttpCode();
  };
  EXPECT_EQ(404, send());
  EXPECT_EQ(200, send());
  const auto requests = server.Requests();
  ASSERT_EQ(2U, requests.size());
  EXPECT_EQ("/Ostl/HostWarden/fim", requests[0].target);
  EXPECT_EQ("/HostWarden/fim", requests[1].target);
}

TEST_F(UrlUpgraderHttpInterceptorTest, HoldsTheFallbackForTheNextAttemptThatThePolicyAllows) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy", "Z-SRV: x\r\n"),
                         FakeHttpServer::Answer("503 Busy", "Z-SRV: x\r\n"), FakeHttpServer::Answer("200 OK")});
  HttpService service("");
  service.Start();
  HttpInterceptors chain;
  chain.push_back(interceptor_.Clone());
  HttpRequestSettings settings;
  settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(3, 0, [&](HttpStatus, long) {
    if (server.Requests().size() == 2) states_->Set("FIM", UrlState::Unauth);  // another upload has found out
    return true;
  });
  const auto request = service.Post(server.Url("/HostWarden/fim"), {}, {}, std::move(chain), std::move(settings));
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  const auto requests = server.Requests();
  ASSERT_EQ(3U, requests.size());
  EXPECT_EQ("/Ostl/HostWarden/fim", requests[1].target);
  EXPECT_EQ("/HostWarden/fim", requests[2].target);
}

}  // namespace
}  // namespace zagent::common
