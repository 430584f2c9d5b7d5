#include "common/src/http/HttpService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/FakeInterceptor.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::FakeHttpServer;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using State = HttpRequest::State;

using Bytes = std::vector<unsigned char>;

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

class HttpServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.Start(); }

  // At once, as often as wanted.
  static HttpRequestSettings Retrying(std::uint64_t max_attempts, std::int64_t interval = 0) {
    HttpRequestSettings settings;
    settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(max_attempts, interval);
    return settings;
  }

  std::shared_ptr<HttpRequest> PostTo(const std::string& url, HttpRequestSettings settings = Retrying(0),
                                      HttpHeaders headers = {}) {
    return service_.Post(url, std::move(headers), BytesOf("payload"), {}, std::move(settings));
  }

  std::shared_ptr<MutableHttpRequest> PostThrough(std::vector<std::string> proxies, const std::string& url,
                                                  std::uint64_t max_attempts, bool fail_open = false) {
    auto request =
        std::make_shared<MutableHttpRequest>(HttpMethod::Post, url, HttpHeaders(), BytesOf("payload"),
                                             HttpInterceptors(), Retrying(max_attempts), HttpProxy(proxies, fail_open));
    service_.Enqueue(request);
    return request;
  }

  template <typename Call>
  static std::string ErrorOf(Call&& call) {
    try {
      call();
    } catch (const HttpException& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
  HttpService service_{""};
};

TEST_F(HttpServiceTest, PostsWhatItWasGiven) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n", "fine")});
  const auto request = PostTo(server.Url("/v1?q=1"), Retrying(0), {{"Content-Type", "text/plain"}, {"X-Empty", ""}});
  const HttpResponse& response = request->GetResponse();
  EXPECT_EQ(State::Completed, request->GetState());
  EXPECT_EQ(HttpStatus::Success, response.GetStatus());
  EXPECT_EQ(200, response.GetHttpCode());
  EXPECT_EQ("OK", response.GetMessage());
  EXPECT_EQ("x", response.GetHeaders().at("z-srv"));
  EXPECT_EQ(BytesOf("fine"), response.GetPayload());
  const auto sent = server.Requests().at(0);
  EXPECT_EQ("POST", sent.method);
  EXPECT_EQ("/v1?q=1", sent.target);
  EXPECT_EQ("payload", sent.body);
  EXPECT_EQ("text/plain", sent.Header("Content-Type"));
  EXPECT_EQ("", sent.Header("X-Empty")) << "an empty value is sent as one";
  EXPECT_EQ("ZAgent", sent.Header("User-Agent"));
}

TEST_F(HttpServiceTest, SaysWhatItDoes) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  const std::string url = server.Url("/v1");
  PostTo(url, Retrying(0), {{"X-A", "1"}})->GetResponse();
  const std::vector<std::pair<Poco::Message::Priority, std::string>> lines = {
      {Poco::Message::PRIO_INFORMATION, "HttpConfig: verifySSL flag : 1"},
      {Poco::Message::PRIO_DEBUG, "Initiating HTTP request for " + url},
      {Poco::Message::PRIO_DEBUG, "No proxy configured. Attempting direct connection"},
      {Poco::Message::PRIO_INFORMATION, "Using proxy : for " + url},
      {Poco::Message::PRIO_DEBUG, "Setting HTTP version: Default (libcurl will negotiate) for " + url},
      {Poco::Message::PRIO_INFORMATION,
       "Certificate file path is empty. Skipping certificate info for HTTP request for " + url},
      {Poco::Message::PRIO_TRACE, "Adding header: X-A"},
      {Poco::Message::PRIO_DEBUG, "Processing response for url: " + url},
      {Poco::Message::PRIO_INFORMATION, "Received HTTP response code: 200"},
      {Poco::Message::PRIO_TRACE, "URL: " + url + " Proxy-Used: 0"},
      {Poco::Message::PRIO_TRACE, "Updated response payload"},
  };
  for (const auto& [priority, line] : lines) EXPECT_TRUE(log_.Has(priority, line)) << line;
}

TEST_F(HttpServiceTest, SpeaksHttp11WhenToldTo) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  HttpRequestSettings settings = Retrying(0);
  settings.http_version = HttpVersion::Http11;
  EXPECT_EQ(200, PostTo(server.Url(), std::move(settings))->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has("Setting HTTP version: HTTP/1.1 for " + server.Url()));
}

TEST_F(HttpServiceTest, AddsNoContentTypeThatNobodyHasSigned) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  PostTo(server.Url())->GetResponse();
  EXPECT_EQ("(absent)", server.Requests().at(0).Header("Content-Type"));
}

TEST_F(HttpServiceTest, SendsThePathAsItWasConfigured) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  const std::vector<std::pair<std::string, std::string>> targets = {
      {"/a%2Fb//c/../d/./e?x=%20+//y?", "/a%2Fb//c/../d/./e?x=%20+//y?"},
      {"/with space?q= \xc3\xa4#fragment", "/with%20space?q=%20%C3%A4"},
      {"?x", "/?x"},
      {"/empty?", "/empty"},
      {"/~a!$&'()*,;=:@\"<>\\^`{|}", "/~a!$&'()*,;=:@\"<>\\^`{|}"}};
  for (const auto& [given, sent] : targets) {
    PostTo("http://" + server.Address() + given)->GetResponse();
    EXPECT_EQ(sent, server.Requests().back().target);
    PostThrough({"http://" + server.Address()}, "http://platform.invalid" + given, 0)->GetResponse();
    EXPECT_EQ("http://platform.invalid" + sent, server.Requests().back().target) << "through a proxy";
  }
}

TEST_F(HttpServiceTest, NeverSendsToAnUrlThatIsNone) {
  EXPECT_EQ(HttpStatus::NotStarted, PostTo("127.0.0.1/v1", Retrying(3))->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to add url to HTTP request for 127.0.0.1/v1"));
}

TEST_F(HttpServiceTest, GetsWithoutAPayload) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK", "", "body")});
  const auto request = service_.Get(server.Url("/status"), {}, {}, Retrying(0));
  EXPECT_EQ(BytesOf("body"), request->GetResponse().GetPayload());
  EXPECT_EQ(HttpMethod::Get, request->GetMethod());
  EXPECT_EQ("GET", server.Requests().at(0).method);
  EXPECT_EQ("", server.Requests().at(0).body);
}

TEST_F(HttpServiceTest, PutsUpToSixteenKilobytes) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  service_.Put(server.Url(), {}, Bytes(16'384, 'x'), {}, Retrying(0))->GetResponse();
  EXPECT_EQ("PUT", server.Requests().at(0).method);
  EXPECT_EQ(std::string(16'384, 'x'), server.Requests().at(0).body);
  EXPECT_EQ("PUT method only supports a maximum payload of 16KB",
            ErrorOf([&] { service_.Put(server.Url(), {}, Bytes(16'385, 'x'), {}, Retrying(0)); }));
  EXPECT_EQ(1U, server.Requests().size());
}

TEST_F(HttpServiceTest, PostsAPayloadThatTheServerMustFirstWelcome) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  const auto request = service_.Post(server.Url(), {}, Bytes(2'000'000, 'x'), {}, Retrying(0));
  EXPECT_FALSE(request->GetResponse().GetHeaders().contains("X-Early")) << "of the interim answer";
  EXPECT_EQ(2'000'000U, server.Requests().at(0).body.size());
}

TEST_F(HttpServiceTest, RefusesRequestsUnlessRunning) {
  HttpService stopped("");
  EXPECT_EQ("HttpService is not running", ErrorOf([&] { stopped.Post("http://127.0.0.1/", {}, {}, {}, Retrying(0)); }));
  service_.Stop();
  EXPECT_EQ("HttpService is not running", ErrorOf([&] { PostTo("http://127.0.0.1/"); }));
}

TEST_F(HttpServiceTest, StartsOnlyWhenStopped) {
  EXPECT_EQ("HttpService cannot be started when in state 1", ErrorOf([&] { service_.Start(); }));
  service_.Stop();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Stopping HTTP service ..."));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "HTTP service stopped"));
  service_.Start();
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  EXPECT_EQ(200, PostTo(server.Url())->GetResponse().GetHttpCode()) << "and works again";
}

// Answers one list and notes for whom.
class FixedProxies final : public ProxyManager {
 public:
  FixedProxies(std::vector<std::string> proxies, std::vector<std::string>& asked)
      : proxies_(std::move(proxies)), asked_(asked) {}
  HttpProxy FetchProxiesForRequest(const std::string& url) override {
    asked_.push_back(url);
    return HttpProxy(proxies_);
  }

 private:
  const std::vector<std::string> proxies_;
  std::vector<std::string>& asked_;
};

TEST_F(HttpServiceTest, AsksTheProxyManagerOnceForEachRequest) {
  FakeHttpServer proxy({FakeHttpServer::Answer("503 Busy", "Z-SRV: x\r\n"), FakeHttpServer::Answer("200 OK")});
  std::vector<std::string> asked;
  HttpService service("", std::make_unique<FixedProxies>(std::vector{"http://" + proxy.Address()}, asked));
  service.Start();
  service.Get("http://platform.invalid/v1", {}, {}, Retrying(1))->GetResponse();
  EXPECT_EQ(std::vector<std::string>{"http://platform.invalid/v1"}, asked);
  EXPECT_EQ(2U, proxy.Requests().size());
}

class NotingProcessor final : public HttpPostProcessor {
 public:
  explicit NotingProcessor(std::vector<long>& codes) : codes_(codes) {}
  void Process(const HttpRequest& request) override {
    codes_.push_back(request.GetResponse().GetHttpCode());
    throw HttpException("no handler");
  }

 private:
  std::vector<long>& codes_;
};

TEST_F(HttpServiceTest, PostProcessesEachFinishedRequestOnceWhateverComesOfIt) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy"), FakeHttpServer::Answer("403 Forbidden"),
                         FakeHttpServer::Answer("200 OK"), FakeHttpServer::kHang});
  std::vector<long> codes;
  {
    HttpService service("");
    service.SetPostProcessor(std::make_unique<NotingProcessor>(codes));
    service.Start();
    const auto refused = service.Get(server.Url(), {}, {}, Retrying(1));
    EXPECT_EQ(403, refused->GetResponse().GetHttpCode());
    EXPECT_EQ(200, service.Get(server.Url(), {}, {}, Retrying(1))->GetResponse().GetHttpCode());
    const auto cancelled = service.Get(server.Url(), {}, {}, Retrying(1));
    server.AwaitRequests(4);
    cancelled->Cancel();
    EXPECT_NE("no error", ErrorOf([&] { cancelled->GetResponse(); }));
    service.Stop();
    EXPECT_EQ(State::Failed, refused->GetState());
  }
  EXPECT_EQ((std::vector<long>{403, 200}), codes) << "no response, nothing to process";
  EXPECT_EQ(2, log_.Count("Failed to finish the http response for " + server.Url() + " no handler"));
}

TEST_F(HttpServiceTest, TakesAPostProcessorOnlyWhileStopped) {
  std::vector<long> codes;
  EXPECT_EQ("PostProcessor is null", ErrorOf([&] { service_.SetPostProcessor(nullptr); }));
  EXPECT_EQ("HttpService is already running",
            ErrorOf([&] { service_.SetPostProcessor(std::make_unique<NotingProcessor>(codes)); }));
  service_.Stop();
  EXPECT_EQ("no error", ErrorOf([&] { service_.SetPostProcessor(std::make_unique<NotingProcessor>(codes)); }));
}

TEST_F(HttpServiceTest, RetriesUntilThePlatformAccepts) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy"), FakeHttpServer::kReset, FakeHttpServer::Answer("202 OK")});
  EXPECT_EQ(202, PostTo(server.Url(), Retrying(3))->GetResponse().GetHttpCode());
  EXPECT_EQ(3U, server.Requests().size());
  EXPECT_EQ(2, log_.Count("Retrying HTTP request for " + server.Url()));
}

TEST_F(HttpServiceTest, GivesUpAfterTheLastAttempt) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy", "", "why")});
  const auto request = PostTo(server.Url(), Retrying(2));
  EXPECT_EQ(HttpStatus::ServerError, request->GetResponse().GetStatus());
  EXPECT_EQ(BytesOf("why"), request->GetResponse().GetPayload());
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_EQ(3U, server.Requests().size());
}

TEST_F(HttpServiceTest, DoesNotRepeatARequestThatThePlatformRefused) {
  FakeHttpServer server({FakeHttpServer::Answer("404 Not Found")});
  EXPECT_EQ(HttpStatus::ClientError, PostTo(server.Url(), Retrying(3))->GetResponse().GetStatus());
  EXPECT_EQ(1U, server.Requests().size());
}

TEST_F(HttpServiceTest, DoesNotFollowARedirect) {
  FakeHttpServer server({FakeHttpServer::Answer("302 Found", "Location: http://127.0.0.1:1/\r\n")});
  EXPECT_EQ(302, PostTo(server.Url(), Retrying(3))->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "Unexpected http response 302 for "));
}

TEST_F(HttpServiceTest, ReportsAHostThatDoesNotListen) {
  std::string url;
  {
    FakeHttpServer gone({FakeHttpServer::Answer("200 OK")});
    url = gone.Url();
  }
  const auto request = PostTo(url);
  const HttpResponse& response = request->GetResponse();
  EXPECT_EQ(HttpStatus::NetworkError, response.GetStatus());
  EXPECT_EQ(0, response.GetHttpCode());
  EXPECT_THAT(response.GetMessage(), HasSubstr("connect"));
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 7 accessing " + url));
}

TEST_F(HttpServiceTest, TimesOut) {
  FakeHttpServer server({FakeHttpServer::kHang});
  HttpRequestSettings settings = Retrying(0);
  settings.request_timeout = 1;
  EXPECT_EQ(HttpStatus::NetworkError, PostTo(server.Url(), std::move(settings))->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has("Network error with CURL_STATUS_CODE 28 accessing " + server.Url()));
}

TEST_F(HttpServiceTest, TakesATimeoutThatLibcurlCannotCount) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  HttpRequestSettings settings = Retrying(0);
  settings.request_timeout = settings.connection_timeout = 4'294'967'295U;
  EXPECT_EQ(200, PostTo(server.Url(), std::move(settings))->GetResponse().GetHttpCode());
}

TEST_F(HttpServiceTest, KeepsTheSuccessOfATruncatedAnswer) {
  FakeHttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort"});
  const auto request = PostTo(server.Url());
  const HttpResponse& response = request->GetResponse();
  EXPECT_EQ(HttpStatus::Success, response.GetStatus());
  EXPECT_EQ(BytesOf("short"), response.GetPayload());
}

TEST_F(HttpServiceTest, DoesNotRepeatAfterAnEmptyReply) {
  FakeHttpServer server({""});
  EXPECT_EQ(HttpStatus::Unknown, PostTo(server.Url(), Retrying(3))->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Unknown curl error with CURL_STATUS_CODE 52 while accessing "));
  EXPECT_EQ(1U, server.Requests().size());
}

TEST_F(HttpServiceTest, NeverSendsWhatAnInterceptorRefuses) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::vector<std::string> calls;
  auto strict = std::make_unique<fakes::FakeInterceptor>("strict", calls);
  strict->on_request = [](Bytes&, HttpHeaders&) { throw HttpInterceptorException("no key"); };
  HttpInterceptors chain;
  chain.push_back(std::move(strict));
  const auto request = service_.Post(server.Url(), {}, {}, std::move(chain), Retrying(3));
  EXPECT_EQ(HttpStatus::NotStarted, request->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Request Processing for url: " + server.Url()));
  EXPECT_TRUE(log_.Has("no key"));
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(HttpServiceTest, RefusesHeadersThatWouldSmuggleAnother) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  const std::vector<HttpHeaders> bad = {{{"X-A", "1\r\nX-B: 2"}},         {{"X-A", "1\n"}},  {{"X-A\r\nX-B", "1"}},
                                        {{"X-A", std::string("1\0", 2)}}, {{"X-A: 1", "2"}}, {{"", "1"}}};
  for (const HttpHeaders& headers : bad) {
    EXPECT_EQ(HttpStatus::NotStarted, PostTo(server.Url(), Retrying(0), headers)->GetResponse().GetStatus());
  }
  EXPECT_EQ(6, log_.Count("Failed to add header: "));
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(HttpServiceTest, QueuesFromItsOwnCallbackWithoutDeadlock) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::promise<std::shared_ptr<HttpRequest>> second;
  HttpRequestSettings settings = Retrying(0);
  settings.on_finished = [&](const HttpRequest&) { second.set_value(PostTo(server.Url("/second"))); };
  PostTo(server.Url("/first"), std::move(settings));
  EXPECT_EQ(200, second.get_future().get()->GetResponse().GetHttpCode());
  EXPECT_EQ("/second", server.Requests().at(1).target);
}

TEST_F(HttpServiceTest, RefusesToWaitForItselfInACallback) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::promise<std::vector<std::string>> errors;
  HttpRequestSettings settings = Retrying(0);
  settings.on_finished = [&](const HttpRequest& request) {
    EXPECT_EQ(200, request.GetResponse().GetHttpCode()) << "it is there already";
    const auto second = PostTo(server.Url("/second"));
    errors.set_value({ErrorOf([&] { second->GetResponse(); }), ErrorOf([&] { service_.Stop(); })});
  };
  PostTo(server.Url(), std::move(settings));
  EXPECT_EQ((std::vector<std::string>{
                "Cannot wait for a response on the thread of the HTTP service: " + server.Url("/second"),
                "HttpService cannot be stopped on its own thread"}),
            errors.get_future().get());
  EXPECT_EQ(200, PostTo(server.Url())->GetResponse().GetHttpCode()) << "and it goes on";
}

TEST_F(HttpServiceTest, SpeaksNoOtherProtocol) {
  const fakes::TempFolder folder;
  const auto request = service_.Get("file://localhost" + folder.Write("secret", "text"), {}, {}, Retrying(0));
  EXPECT_EQ(HttpStatus::NotStarted, request->GetResponse().GetStatus());
  EXPECT_TRUE(request->GetResponse().GetPayload().empty());
  EXPECT_TRUE(log_.Has("Unknown curl error with CURL_STATUS_CODE 1 while accessing "));
}

TEST_F(HttpServiceTest, CountsOnlyTheLastStatusLine) {
  FakeHttpServer server(
      {"HTTP/1.1 102 Processing\r\nX-Early: 1\r\n\r\nHTTP/1.1 103 Early Hints\r\nZ-SRV: early\r\n\r\n" +
       FakeHttpServer::Answer("202 Accepted")});
  const auto request = PostTo(server.Url());
  EXPECT_EQ(202, request->GetResponse().GetHttpCode());
  EXPECT_EQ("Accepted", request->GetResponse().GetMessage());
  EXPECT_FALSE(request->GetResponse().GetHeaders().contains("X-Early"));
  EXPECT_FALSE(request->GetResponse().GetHeaders().contains("Z-SRV"));
}

// The states of this host's TCP sockets to the server: the timer that runs, "02" for keep-alive.
std::string TimerTowards(const std::string& address) {
  const auto port = static_cast<unsigned>(std::stoul(address.substr(address.find(':') + 1)));
  std::ifstream table("/proc/net/tcp");
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string number, local, remote, state, queues, timer;
    fields >> number >> local >> remote >> state >> queues >> timer;
    const std::size_t colon = remote.find(':');
    if (colon != std::string::npos && std::stoul(remote.substr(colon + 1), nullptr, 16) == port && state == "01") {
      return timer.substr(0, 2);
    }
  }
  return "none";
}

TEST_F(HttpServiceTest, LooksAfterASilentPeer) {
  FakeHttpServer server({FakeHttpServer::kHang});
  const auto request = PostTo(server.Url());
  server.AwaitRequests(1);
  std::string timer;
  // What has just been sent may still wait for its acknowledgement, with a timer of its own.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  do {
    timer = TimerTowards(server.Address());
  } while (timer != "02" && std::chrono::steady_clock::now() < end);
  EXPECT_EQ("02", timer);
}

TEST_F(HttpServiceTest, RunsInterceptorsWithoutItsLock) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::vector<std::string> calls;
  auto queuing = std::make_unique<fakes::FakeInterceptor>("queuing", calls);
  std::shared_ptr<HttpRequest> second;
  queuing->on_request = [&](Bytes&, HttpHeaders&) { second = PostTo(server.Url("/second")); };
  HttpInterceptors chain;
  chain.push_back(std::move(queuing));
  EXPECT_EQ(200, service_.Post(server.Url(), {}, {}, std::move(chain), Retrying(0))->GetResponse().GetHttpCode());
  EXPECT_EQ(200, second->GetResponse().GetHttpCode());
}

TEST_F(HttpServiceTest, CancelsATransferInFlight) {
  FakeHttpServer server({FakeHttpServer::kHang});
  const auto request = PostTo(server.Url(), Retrying(3));
  server.AwaitRequests(1);
  request->Cancel();
  EXPECT_EQ("Response isn't available for cancelled HTTP request for " + server.Url(),
            ErrorOf([&] { request->GetResponse(); }));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Cancelling HTTP request for " + server.Url()));
  EXPECT_TRUE(log_.Has("HTTP request for " + server.Url() + " was aborted"));
}

TEST_F(HttpServiceTest, CancelsARequestThatWaitsForItsRetry) {
  FakeHttpServer server({FakeHttpServer::Answer("503 Busy")});
  const auto request = PostTo(server.Url(), Retrying(3, 3600));
  while (request->GetState() != State::WaitingForRetry) std::this_thread::yield();
  request->Cancel();
  EXPECT_NE("no error", ErrorOf([&] { request->GetResponse(); }));
  EXPECT_EQ(State::Cancelled, request->GetState());
  EXPECT_EQ(1U, server.Requests().size());
}

TEST_F(HttpServiceTest, CancelsARequestThatIsStillQueued) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  auto request = std::make_shared<MutableHttpRequest>(HttpMethod::Post, server.Url(), HttpHeaders(), Bytes(),
                                                      HttpInterceptors(), Retrying(0));
  request->Cancel();
  service_.Enqueue(request);
  EXPECT_NE("no error", ErrorOf([&] { request->GetResponse(); }));
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(HttpServiceTest, LeavesAFinishedRequestWhatItIsWhenCancelled) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  const auto request = PostTo(server.Url());
  request->GetResponse();
  request->Cancel();
  EXPECT_EQ(200, PostTo(server.Url())->GetResponse().GetHttpCode());
  EXPECT_EQ(State::Completed, request->GetState());
}

TEST_F(HttpServiceTest, CancelAfterTheServiceHasGoneIsHarmless) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::shared_ptr<HttpRequest> request;
  {
    HttpService gone("");
    gone.Start();
    request = gone.Post(server.Url(), {}, {}, {}, Retrying(0));
    request->GetResponse();
  }
  request->Cancel();
  EXPECT_EQ(State::Completed, request->GetState());
}

TEST_F(HttpServiceTest, StopAbortsWhatIsInFlightAndWhatWaits) {
  FakeHttpServer waiting_server({FakeHttpServer::Answer("503 Busy")});
  FakeHttpServer hanging_server({FakeHttpServer::kHang});
  std::atomic<int> finished{0};
  HttpRequestSettings settings = Retrying(3, 3600);
  settings.on_finished = [&](const HttpRequest&) { ++finished; };
  const auto waiting = PostTo(waiting_server.Url(), std::move(settings));
  const auto flying = PostTo(hanging_server.Url(), Retrying(3));
  auto waiter = std::async(std::launch::async, [&] { return ErrorOf([&] { flying->GetResponse(); }); });
  hanging_server.AwaitRequests(1);
  while (waiting->GetState() != State::WaitingForRetry) std::this_thread::yield();
  service_.Stop();
  EXPECT_THAT(waiter.get(), StartsWith("Response isn't available for cancelled HTTP request for "));
  EXPECT_EQ(State::Cancelled, waiting->GetState());
  EXPECT_EQ(1, finished);
  EXPECT_TRUE(log_.Has("Cancelling HTTP request for " + waiting_server.Url()));
  EXPECT_TRUE(log_.Has("Cancelling HTTP request for " + hanging_server.Url()));
}

TEST_F(HttpServiceTest, FailsWithACertificatePathThatDoesNotExist) {
  HttpService service("/nonexistent/ca.pem");
  service.Start();
  EXPECT_EQ(HttpStatus::NotStarted,
            service.Post("https://127.0.0.1:1/", {}, {}, {}, Retrying(3))->GetResponse().GetStatus());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Certificate path does not exist, invalid path"));
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR, "Failed to add certificate info to HTTP request for https://127.0.0.1:1/"));
}

// Allows two more attempts, whatever happened.
class StubbornPolicy final : public HttpRetryPolicy {
 public:
  StubbornPolicy() : HttpRetryPolicy(0, {}, util::Clock::Real()) {}
  [[nodiscard]] std::unique_ptr<HttpRetryPolicy> Clone() const override {
    return std::make_unique<StubbornPolicy>(*this);
  }

 protected:
  bool OnFinish(HttpStatus, long) override { return ++attempts_ < 3; }
  void GiveBackAttempt() override {}

 private:
  int attempts_ = 0;
};

TEST_F(HttpServiceTest, RetriesWhatCouldNotBeBegunWhenThePolicyWantsIt) {
  HttpService service("/nonexistent/ca.pem");
  service.Start();
  HttpRequestSettings settings;
  settings.retry_policy = std::make_unique<StubbornPolicy>();
  const auto request = service.Post("https://127.0.0.1:1/", {}, {}, {}, std::move(settings));
  EXPECT_EQ(HttpStatus::NotStarted, request->GetResponse().GetStatus());
  EXPECT_EQ(3, log_.Count("Failed to add certificate info to HTTP request for "));
}

// What breaks while a request is begun, answered or judged ends that request, and no other.
TEST_F(HttpServiceTest, LeavesNobodyWaitingWhateverIsThrown) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  std::vector<std::string> calls;
  const auto with = [&](auto&& change) {
    auto interceptor = std::make_unique<fakes::FakeInterceptor>("broken", calls);
    change(*interceptor);
    HttpInterceptors chain;
    chain.push_back(std::move(interceptor));
    return service_.Post(server.Url(), {}, {}, std::move(chain), Retrying(0));
  };
  const std::vector<std::shared_ptr<HttpRequest>> requests = {
      with([](auto& step) { step.on_request = [](Bytes&, HttpHeaders&) { throw 42; }; }),
      with([](auto& step) { step.on_chunk = [](const Bytes&, Bytes&) -> HttpInterceptor::ChunkResult { throw 42; }; }),
      with([](auto& step) {
        step.on_response = [](MutableHttpResponse& response) {
          response.Finalize();
          throw 42;
        };
      }),
      PostTo(server.Url()),
  };
  for (const auto& request : requests) request->GetResponse();
  EXPECT_EQ(State::Failed, requests[0]->GetState());
  EXPECT_EQ(State::Failed, requests[1]->GetState());
  EXPECT_EQ(State::Failed, requests[2]->GetState());
  EXPECT_EQ(State::Completed, requests[3]->GetState());
  EXPECT_EQ(3U, server.Requests().size());
}

TEST_F(HttpServiceTest, AsksTheProxyAndNotTheHost) {
  FakeHttpServer proxy({FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  const auto request = PostThrough({"http://user:secret@" + proxy.Address()}, "http://platform.invalid/v1", 0);
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_EQ("http://platform.invalid/v1", proxy.Requests().at(0).target);
  EXPECT_TRUE(log_.Has("Using proxy :http://***@" + proxy.Address() + " for http://platform.invalid/v1"));
  EXPECT_TRUE(log_.Has("Using http proxy for request to url: http://platform.invalid/v1"));
  EXPECT_FALSE(log_.Has("secret"));
}

TEST_F(HttpServiceTest, MovesToTheNextProxyWhenOneAnswersForItself) {
  FakeHttpServer bad({FakeHttpServer::Answer("503 Overloaded")});
  FakeHttpServer good({FakeHttpServer::Answer("200 OK", "Z-SRV: x\r\n")});
  const auto request =
      PostThrough({"http://" + bad.Address(), "http://" + good.Address()}, "http://platform.invalid/", 1);
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_EQ(1U, bad.Requests().size());
}

TEST_F(HttpServiceTest, KnowsTheWordsOfAProxyFromThePlatforms) {
  const std::string url = "http://platform.invalid/";
  for (const char* status : {"403 Forbidden", "501 Not Implemented"}) {
    FakeHttpServer proxy({FakeHttpServer::Answer(status)});
    EXPECT_TRUE(PostThrough({proxy.Address()}, url, 0)->GetResponse().IsProxysOwn()) << status;
    FakeHttpServer marked({FakeHttpServer::Answer(status, "z-srv: x\r\n")});
    EXPECT_FALSE(PostThrough({marked.Address()}, url, 0)->GetResponse().IsProxysOwn()) << status;
    FakeHttpServer platform({FakeHttpServer::Answer(status)});
    EXPECT_FALSE(PostTo(platform.Url())->GetResponse().IsProxysOwn()) << "nobody stands between";
  }
  FakeHttpServer proxy({FakeHttpServer::Answer("401 Unauthorized", "", R"({"action":1})")});
  PostThrough({proxy.Address()}, url, 0)->GetResponse();
  service_.Stop();  // what follows the response is done, too
  EXPECT_TRUE(log_.Has("HttpErrorParser: Ignoring HTTP status code: 401"));
  EXPECT_FALSE(log_.Has("Action: 1"));
}

TEST_F(HttpServiceTest, SaysWhatBrokeTheConnectionBehindAGoodStatusLine) {
  FakeHttpServer server({std::string("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf") + FakeHttpServer::kReset});
  const auto request = PostTo(server.Url());
  EXPECT_EQ(HttpStatus::NetworkError, request->GetResponse().GetStatus());
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_EQ("Failure when receiving data from the peer", request->GetResponse().GetMessage());
}

TEST_F(HttpServiceTest, SaysNothingOfAnEarlierAttempt) {
  FakeHttpServer server({FakeHttpServer::kReset, FakeHttpServer::Answer("404 Not Found")});
  EXPECT_EQ("Not Found", PostTo(server.Url(), Retrying(1))->GetResponse().GetMessage());
}

TEST_F(HttpServiceTest, StaysWithTheProxyWhenThePlatformItselfIsBusy) {
  FakeHttpServer proxy({FakeHttpServer::Answer("503 Busy", "z-srv: x\r\n")});
  FakeHttpServer unused({FakeHttpServer::Answer("200 OK")});
  const auto request =
      PostThrough({"http://" + proxy.Address(), "http://" + unused.Address()}, "http://platform.invalid/", 1);
  EXPECT_EQ(HttpStatus::ServerError, request->GetResponse().GetStatus());
  EXPECT_EQ(2U, proxy.Requests().size());
  EXPECT_TRUE(unused.Requests().empty());
}

TEST_F(HttpServiceTest, GoesDirectWhenEveryProxyFailedAndItFailsOpen) {
  FakeHttpServer bad({FakeHttpServer::kReset});
  FakeHttpServer platform({FakeHttpServer::Answer("200 OK")});
  const auto request = PostThrough({"http://" + bad.Address()}, platform.Url(), 1, true);
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Attempting direct connection for failopen"));
  EXPECT_EQ("/", platform.Requests().at(0).target);
}

TEST_F(HttpServiceTest, ReportsTheCodeWithWhichAProxyRefusedTheTunnel) {
  FakeHttpServer proxy({FakeHttpServer::Answer("407 Proxy Authentication Required", "Z-SRV: forged\r\n")});
  const auto request = PostThrough({"http://" + proxy.Address()}, "https://platform.invalid/", 0);
  EXPECT_EQ(407, request->GetResponse().GetHttpCode());
  EXPECT_EQ(HttpStatus::NetworkError, request->GetResponse().GetStatus());
  EXPECT_FALSE(request->GetResponse().GetHeaders().contains("Z-SRV")) << "the proxy's headers are not the platform's";
  EXPECT_TRUE(log_.Has("Received proxy connect code: 407"));
  EXPECT_EQ("CONNECT", proxy.Requests().at(0).method);
}

TEST_F(HttpServiceTest, IgnoresTheProxiesOfTheEnvironment) {
  FakeHttpServer platform({FakeHttpServer::Answer("200 OK")});
  FakeHttpServer proxy({FakeHttpServer::Answer("200 OK")});
  setenv("http_proxy", ("http://" + proxy.Address()).c_str(), 1);
  PostTo(platform.Url())->GetResponse();
  setenv("no_proxy", "*", 1);
  PostThrough({"http://" + proxy.Address()}, platform.Url("/proxied"), 0)->GetResponse();
  unsetenv("http_proxy");
  unsetenv("no_proxy");
  EXPECT_EQ(1U, platform.Requests().size()) << "no proxy given: straight to the platform";
  ASSERT_EQ(1U, proxy.Requests().size()) << "a given proxy is not bypassed";
  EXPECT_EQ(platform.Url("/proxied"), proxy.Requests().at(0).target);
}

TEST_F(HttpServiceTest, SetsTheCertificatePathForAnHttpsProxyToo) {
  const fakes::TempFolder folder;
  const std::string file = folder.Write("ca.pem", "");
  for (const auto& [path, line] : {std::pair{file, "Set CURLOPT_PROXY_CAINFO = " + file},
                                   std::pair{folder.Path(), "Set CURLOPT_PROXY_CAPATH: " + folder.Path()}}) {
    HttpService service(path);
    service.Start();
    auto request =
        std::make_shared<MutableHttpRequest>(HttpMethod::Get, "https://platform.invalid/", HttpHeaders(), Bytes(),
                                             HttpInterceptors(), Retrying(0), HttpProxy({"https://127.0.0.1:1"}));
    service.Enqueue(request);
    request->GetResponse();
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, line)) << log_.All();
    EXPECT_TRUE(log_.Has("Using https proxy for request to url: https://platform.invalid/"));
  }
}

TEST_F(HttpServiceTest, LeavesAnHttpsProxyTheDefaultCertificatesWithoutAPath) {
  PostThrough({"https://127.0.0.1:1"}, "https://platform.invalid/", 0)->GetResponse();
  EXPECT_TRUE(
      log_.Has("Certificate file path is empty. Skipped proxy ca certificate path config for request to url: "
               "https://platform.invalid/"));
}

TEST_F(HttpServiceTest, KnowsTheAddressThatTheConnectionUsed) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  auto request = std::make_shared<MutableHttpRequest>(HttpMethod::Get, server.Url(), HttpHeaders(), Bytes(),
                                                      HttpInterceptors(), Retrying(0));
  service_.Enqueue(request);
  request->GetResponse();
  EXPECT_EQ("127.0.0.1", request->GetLocalIp());
}

}  // namespace
}  // namespace zagent::common
