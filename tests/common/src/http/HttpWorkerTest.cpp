// How long the HTTP thread sleeps, and what becomes of requests that it never began.
#include "common/src/http/HttpWorker.h"

#include <gtest/gtest.h>

#include <future>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpService.h"
#include "tests/fakes/BlackHole.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/FakeInterceptor.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using namespace std::chrono_literals;
using fakes::FakeHttpServer;
using State = HttpRequest::State;

class HttpWorkerTest : public ::testing::Test {
 protected:
  // A request that has failed once and waits for its next attempt.
  std::shared_ptr<MutableHttpRequest> AddPendingRetry(std::int64_t interval) {
    HttpRequestSettings settings;
    settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(3, interval, HttpRetryPolicy::Predicate(), clock_);
    auto request =
        std::make_shared<MutableHttpRequest>(HttpMethod::Get, server_.Url(), HttpHeaders(),
                                             std::vector<unsigned char>(), HttpInterceptors(), std::move(settings));
    worker_.Turn({request});
    while (request->GetState() != State::WaitingForRetry) {
      worker_.Wait();
      worker_.Turn({});
    }
    return request;
  }

  // The shortest of a few sleeps: a busy machine makes them longer, nothing makes them shorter.
  std::chrono::nanoseconds ShortestSleep(int tries) {
    auto shortest = std::chrono::nanoseconds::max();
    for (int i = 0; i < tries; ++i) {
      const auto begin = std::chrono::steady_clock::now();
      worker_.Wait();
      shortest = std::min<std::chrono::nanoseconds>(shortest, std::chrono::steady_clock::now() - begin);
    }
    return shortest;
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  FakeHttpServer server_{{FakeHttpServer::Answer("503 Busy"), FakeHttpServer::Answer("200 OK")}};
  WakeUp wake_up_;
  HttpWorker worker_{"", wake_up_};
};

TEST_F(HttpWorkerTest, SleepsASecondAtMostWhileARetryWaits) {
  AddPendingRetry(3600);
  const auto sleep = ShortestSleep(2);
  EXPECT_GE(sleep, 900ms) << "but it does sleep";
  EXPECT_LT(sleep, 4s) << "a transfer's five seconds are too long";
}

TEST_F(HttpWorkerTest, SleepsNoLongerThanUntilTheRetryIsDue) {
  const auto request = AddPendingRetry(10);
  clock_.Advance(9990ms);
  EXPECT_LT(ShortestSleep(5), 800ms);
  clock_.Advance(10ms);
  worker_.Turn({});
  while (request->GetState() != State::Completed) {
    worker_.Wait();
    worker_.Turn({});
  }
  EXPECT_EQ(2U, server_.Requests().size());
}

TEST_F(HttpWorkerTest, IsWokenFromItsSleep) {
  AddPendingRetry(3600);
  wake_up_.Notify();
  EXPECT_LT(ShortestSleep(1), 900ms);
}

TEST_F(HttpWorkerTest, NeitherSleepsBeforeTheNextRangeNorForgetsItAtTheEnd) {
  FakeHttpServer server({FakeHttpServer::Answer("206 Partial Content", "Content-Range: bytes 0-3/8\r\n", "0123")});
  HttpRequestSettings settings;
  settings.range_size = 4;
  const auto request =
      std::make_shared<MutableHttpRequest>(HttpMethod::Get, server.Url(), HttpHeaders(), std::vector<unsigned char>(),
                                           HttpInterceptors(), std::move(settings));
  worker_.Turn({request});
  while (request->GetState() != State::WaitingForRetry) {
    worker_.Wait();
    worker_.Turn({});
  }
  EXPECT_LT(ShortestSleep(1), 900ms);
  worker_.AbortAll({});
  EXPECT_EQ(State::Cancelled, request->GetState());
}

TEST(HttpServiceStopTest, AbortsWhatIsStillQueued) {
  const fakes::LogCapture log;
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  fakes::Gate begun;
  fakes::Gate released;
  std::vector<std::string> calls;
  auto blocking = std::make_unique<fakes::FakeInterceptor>("blocking", calls);
  blocking->on_request = [&](std::vector<unsigned char>&, HttpHeaders&) {
    begun.Open();
    EXPECT_TRUE(released.Await());
  };
  HttpInterceptors chain;
  chain.push_back(std::move(blocking));
  HttpService service("");
  service.Start();
  const auto first = service.Get(server.Url("/first"), {}, std::move(chain), {});
  ASSERT_TRUE(begun.Await());
  const auto queued = service.Get(server.Url("/queued"), {}, {}, {});
  auto stopped = std::async(std::launch::async, [&] { service.Stop(); });
  // Once it is stopping it refuses what comes.
  std::vector<std::shared_ptr<HttpRequest>> more;
  const auto is_refused = [&] {
    try {
      more.push_back(service.Get(server.Url("/more"), {}, {}, {}));
    } catch (const HttpException&) {
      return true;
    }
    return false;
  };
  ASSERT_TRUE(fakes::Eventually(is_refused));
  released.Open();
  stopped.get();
  EXPECT_EQ(State::Cancelled, queued->GetState());
  for (const auto& request : more) EXPECT_EQ(State::Cancelled, request->GetState());
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "Cancelling HTTP request for " + server.Url("/queued")));
}

TEST(HttpServiceTimeTest, GivesUpAConnectionThatDoesNotCome) {
  const fakes::LogCapture log;
  const fakes::BlackHole host;
  HttpService service("");
  service.Start();
  HttpRequestSettings settings;
  settings.connection_timeout = 1;
  settings.request_timeout = 60;
  settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(0, 0);
  const auto begin = std::chrono::steady_clock::now();
  const auto request = service.Get(host.Url(), {}, {}, std::move(settings));
  EXPECT_EQ(HttpStatus::NetworkError, request->GetResponse().GetStatus());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
  EXPECT_TRUE(log.Has("Network error with CURL_STATUS_CODE 28 accessing " + host.Url()));
}

}  // namespace
}  // namespace zagent::common
