// Many uploads through a platform that fails, and single ones through every way in which a network can.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <atomic>
#include <map>
#include <thread>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeHttpServer.h"

namespace zagent::e2e {
namespace {

using fakes::FakeHttpServer;

class OutcomeTest : public UploadFixture {
 protected:
  void SetUp() override { StartService(""); }

  common::HttpUploader UploaderTo(const std::string& url, std::uint64_t max_attempts = 0) {
    common::HttpUploader::Settings settings;
    settings.url = url;
    settings.customer_id = kCustomer;
    settings.agent_id = kAgent;
    settings.connection_timeout = 2;
    settings.request_timeout = 2;
    settings.retry_interval_seconds = 0;
    settings.max_attempts = max_attempts;
    return {*service_, Keys(common::HmacVersion::HmacV2), settings};
  }

  std::int32_t OutcomeOf(const std::vector<std::string>& script, std::uint64_t max_attempts = 0) {
    FakeHttpServer server(script);
    return UploaderTo(server.Url("/v1/fim"), max_attempts).Upload("application/json", BytesOf("{}"));
  }
};

TEST_F(OutcomeTest, IsTheTablesForEveryCodeThatAPlatformCanAnswer) {
  const std::map<int, std::int32_t> named = {{200, 0},      {202, 0},      {204, 100001}, {404, 100016},
                                             {409, 100013}, {415, 100028}, {424, 100021}, {500, 100023}};
  for (int code = 200; code <= 599; ++code) {
    const auto entry = named.find(code);
    std::int32_t expected = code < 400 ? 100017 : code < 500 ? 100021 : 100020;
    if (entry != named.end()) expected = entry->second;
    EXPECT_EQ(expected, OutcomeOf({FakeHttpServer::Answer(std::to_string(code) + " Code")})) << code;
  }
}

TEST_F(OutcomeTest, FollowsTheStatusLineWhateverBecomesOfTheBody) {
  const std::string head = " Code\r\nContent-Length: 100\r\n\r\npart";
  EXPECT_EQ(0, OutcomeOf({"HTTP/1.1 200" + head}));
  EXPECT_EQ(0, OutcomeOf({"HTTP/1.1 202" + head}));
  EXPECT_EQ(100016, OutcomeOf({"HTTP/1.1 404" + head}));
  EXPECT_EQ(100020, OutcomeOf({"HTTP/1.1 503" + head}));
  EXPECT_EQ(0, OutcomeOf({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nnot chunked"}));
  EXPECT_EQ(100022, OutcomeOf({"HTTP/1.1"})) << "no status line, no answer";
  EXPECT_EQ(100022, OutcomeOf({"SSH-2.0-OpenSSH_9.2\r\n"}));
}

TEST_F(OutcomeTest, IsNoAnswerWhenNobodyAnswers) {
  EXPECT_EQ(100022, OutcomeOf({FakeHttpServer::kReset}, 1));
  EXPECT_EQ(100022, OutcomeOf({""}, 1));
  EXPECT_EQ(100022, OutcomeOf({FakeHttpServer::kHang}));
  EXPECT_EQ(100022, UploaderTo("http://no.such.host.invalid/").Upload("application/json", BytesOf("{}")));
  std::string gone;
  {
    FakeHttpServer server({""});
    gone = server.Url();
  }
  EXPECT_EQ(100022, UploaderTo(gone).Upload("application/json", BytesOf("{}")));
}

TEST_F(OutcomeTest, IsNoAnswerWithoutAFreeDescriptorAndGoodAgainWithOne) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK")});
  auto uploader = UploaderTo(server.Url());
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const std::int32_t outcome = uploader.Upload("application/json", BytesOf("{}"));
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  EXPECT_EQ(100022, outcome);
  EXPECT_EQ(0, uploader.Upload("application/json", BytesOf("{}")));
}

// Half of a thousand uploads meet a failure, each of a kind that is tried again or not; all are sent until they are
// accepted, as a spool does it.
TEST_F(OutcomeTest, LosesNothingAndCountsNothingTwiceInAThousandUploads) {
  constexpr int kUploads = 1000;
  constexpr int kThreads = 4;
  tools::ReceiverOptions options = Options();
  options.status = 503;
  options.status_requests = 250;
  options.lose_answers = 250;
  StartReceiver(options);
  std::atomic<int> next{0};
  std::atomic<int> failed{0};
  const auto send = [&] {
    const auto uploader = Uploader();
    for (int i = next++; i < kUploads; i = next++) {
      common::UploadSource source;
      source.path = "/spool/fim.0001";
      source.inode = static_cast<std::uint64_t>(i);
      std::int32_t outcome = -1;
      while (outcome != 0) {
        uploader->SetSource(source);
        outcome = uploader->Upload("application/json", BytesOf(std::to_string(i)));
        if (outcome == 0) break;
        ++failed;
        // A 503, or no answer at all: nothing else has happened here.
        EXPECT_TRUE(outcome == 100020 || outcome == 100022) << outcome;
      }
    }
  };
  max_attempts_ = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(send);
  for (std::thread& thread : threads) thread.join();
  // libcurl itself repeats a request whose kept connection dies before a byte of the answer has come.
  EXPECT_GE(failed, 250);
  EXPECT_LE(failed, 500);
  EXPECT_EQ(1500U, receiver_->GetRequestCount());
  std::map<std::string, int> counts;
  for (const auto& payload : receiver_->GetPayloads()) ++counts[payload.text];
  EXPECT_EQ(static_cast<std::size_t>(kUploads), counts.size()) << "lost";
  for (const auto& [text, count] : counts) EXPECT_EQ(1, count) << text;
}

TEST_F(OutcomeTest, WaitsLongerAndLongerWhenThePlatformIsBusy) {
  FakeHttpServer server({FakeHttpServer::Answer("429 Too Many Requests")});
  fakes::FakeClock clock;
  common::HttpRequestSettings settings;
  settings.retry_policy =
      std::make_unique<common::DefaultHttpRetryPolicy>(3, 5, common::HttpRetryPolicy::Predicate(), clock);
  const auto request = service_->Get(server.Url(), {}, {}, std::move(settings));
  for (std::size_t attempt = 1; attempt <= 3; ++attempt) {
    server.AwaitRequests(attempt);
    while (request->GetState() != common::HttpRequest::State::WaitingForRetry) std::this_thread::yield();
    const std::chrono::seconds waits[] = {std::chrono::seconds(8), std::chrono::seconds(11), std::chrono::seconds(17)};
    // Another request makes the worker look: a second too early, nothing happens.
    clock.Advance(waits[attempt - 1] - std::chrono::seconds(1));
    FakeHttpServer other({FakeHttpServer::Answer("200 OK")});
    service_->Get(other.Url(), {}, {}, {})->GetResponse();
    EXPECT_EQ(attempt, server.Requests().size());
    clock.Advance(std::chrono::seconds(1));
  }
  EXPECT_EQ(429, request->GetResponse().GetHttpCode());
  EXPECT_EQ(4U, server.Requests().size());
}

TEST_F(OutcomeTest, IsSafeToQueueCancelAndStopFromManyThreads) {
  FakeHttpServer server({FakeHttpServer::Answer("200 OK"), FakeHttpServer::Answer("503 Busy"), FakeHttpServer::kReset,
                         FakeHttpServer::Answer("200 OK")});
  for (int round = 0; round < 5; ++round) {
    std::vector<std::thread> threads;
    std::atomic<int> ended{0};
    for (int thread = 0; thread < 8; ++thread) {
      threads.emplace_back([&, thread] {
        for (int i = 0; i < 20; ++i) {
          try {
            common::HttpRequestSettings settings;
            settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(1, 0);
            const auto request = service_->Get(server.Url(), {}, {}, std::move(settings));
            if ((thread + i) % 3 == 0) request->Cancel();
            (void)request->GetResponse().GetHttpCode();
          } catch (const common::HttpException&) {
            // Cancelled, or the service stops.
          }
          ++ended;
        }
      });
    }
    while (ended < 40) std::this_thread::yield();
    service_->Stop();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(160, ended) << "nobody hangs";
    service_->Start();
  }
}

}  // namespace
}  // namespace zagent::e2e
