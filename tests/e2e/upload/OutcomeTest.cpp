// Many uploads through a platform that fails, and single ones through every way in which a network can.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <tuple>

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

  static std::string UrlOfNobody() { return FakeHttpServer({""}).Url(); }

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
  EXPECT_EQ(100022, UploaderTo(UrlOfNobody()).Upload("application/json", BytesOf("{}")));
}

TEST_F(OutcomeTest, IsNoAnswerWithoutAFreeDescriptorAndGoodAgainWithOne) {
  const std::string ok = FakeHttpServer::Answer("200 OK");
  FakeHttpServer server({ok, ok});
  auto uploader = UploaderTo(server.Url());
  // An upload and a failure also for sanitizers, which look at what they meet for the first time with the help of
  // descriptors.
  EXPECT_EQ(0, uploader.Upload("application/json", BytesOf("{}")));
  EXPECT_EQ(100022, UploaderTo(UrlOfNobody()).Upload("application/json", BytesOf("{}")));
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const std::int32_t outcome = uploader.Upload("application/json", BytesOf("{}"));
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  EXPECT_EQ(100022, outcome);
  EXPECT_EQ(0, uploader.Upload("application/json", BytesOf("{}")));
}

// One way in which uploads fail, and what each of them comes to when it does.
struct Failure {
  std::string name;
  unsigned times;
  std::int32_t outcome;
  // Of a platform that fails by itself; none: something that is no platform stands at the URL for so long.
  std::function<void(tools::ReceiverOptions& options)> misbehave;
  std::string url;
};

// A thousand uploads, half of which meet a failure first, of every kind at once. Each is sent until it is accepted, as
// a spool does it.
class ThousandUploadsTest : public OutcomeTest {
 protected:
  using Receiver = std::unique_ptr<tools::ReferenceReceiver>;

  tools::ReceiverOptions OptionsOf(const std::string& certificate) {
    tools::ReceiverOptions options = Options();
    options.cert_folder = folder_ / certificate;
    options.ca_file = folder_ / (certificate + ".pem");
    return options;
  }

  Receiver Stranger(const std::string& certificate, const std::string& names, int days) {
    tools::ReceiverOptions options = OptionsOf(certificate);
    options.cert_names = names;
    options.cert_days = days;
    return std::make_unique<tools::ReferenceReceiver>(std::move(options));
  }

  std::unique_ptr<common::HttpUploader> UploaderFor(const Failure& failure) {
    common::HttpUploader::Settings settings;
    settings.customer_id = kCustomer;
    settings.agent_id = kAgent;
    settings.connection_timeout = 3;
    settings.request_timeout = failure.times < 10 ? 3 : 30;  // those that are few wait until it ends
    settings.max_attempts = 0;
    return std::make_unique<common::HttpUploader>(*service_, Keys(common::HmacVersion::HmacV2), settings);
  }

  std::int32_t Send(common::HttpUploader& uploader, const Failure& failure, unsigned number) {
    common::UploadSource source;
    source.path = "/spool/" + failure.name;
    source.prefix = failure.name;
    source.inode = number;
    uploader.SetSource(source);
    return uploader.Upload("text/plain", BytesOf(failure.name + " " + std::to_string(number)));
  }

  // Sends twice as many uploads as fail: those that do are sent a second time.
  void SendAll(const Failure& failure, const std::string& platform) {
    const auto uploader = UploaderFor(failure);
    uploader->SetTarget((failure.misbehave ? platform : failure.url) + "/v1/fim");
    for (unsigned i = 0; i < failure.times; ++i) {
      EXPECT_EQ(failure.outcome, Send(*uploader, failure, i)) << failure.name << " " << i;
    }
    uploader->SetTarget(platform + "/v1/fim");
    for (unsigned i = failure.outcome == 0 ? failure.times : 0; i < 2 * failure.times; ++i) {
      EXPECT_EQ(0, Send(*uploader, failure, i)) << failure.name << " " << i;
    }
  }

  int CountLines(const std::string& text) {
    const std::vector<std::string> lines = Lines();
    return static_cast<int>(std::count(lines.begin(), lines.end(), text));
  }
};

TEST_F(ThousandUploadsTest, LoseNothingAndAreCountedOnceWhateverHappensToHalfOfThem) {
  using Fault = tools::ReceiverOptions::BodyFault;
  std::vector<Failure> failures;
  for (const auto& [status, outcome] : std::map<int, std::int32_t>{{201, 100017},
                                                                   {204, 100001},
                                                                   {302, 100017},
                                                                   {400, 100021},
                                                                   {404, 100016},
                                                                   {409, 100013},
                                                                   {415, 100028},
                                                                   {424, 100021},
                                                                   {429, 100021},
                                                                   {500, 100023},
                                                                   {501, 100020},
                                                                   {502, 100020},
                                                                   {503, 100020},
                                                                   {504, 100020}}) {
    failures.push_back({std::to_string(status), 24, outcome,
                        [status = status](tools::ReceiverOptions& options) {
                          options.status = status;
                          options.status_requests = 24;
                        },
                        ""});
  }
  failures.push_back({"answer lost", 24, 100022, [](auto& options) { options.lose_answers = 24; }, ""});
  for (const auto& [name, times, fault] :
       {std::tuple{"truncated", 24U, Fault::Truncate}, std::tuple{"reset in the body", 24U, Fault::Reset},
        std::tuple{"stalled in the body", 4U, Fault::Stall}}) {
    failures.push_back({name, times, 0,
                        [times = times, fault = fault](tools::ReceiverOptions& options) {
                          options.body_fault = fault;
                          options.body_fault_uploads = times;
                        },
                        ""});
  }

  FakeHttpServer resetting({FakeHttpServer::kReset});
  FakeHttpServer silent({FakeHttpServer::kHang});
  FakeHttpServer slow({std::string("HTTP/1.1 503 Busy\r\nContent-Length: 1000\r\n\r\n") + FakeHttpServer::kTrickle});
  FakeHttpServer mute({"HTTP/1.1"});
  const Receiver untrusted = Stranger("untrusted", "IP:127.0.0.1", 365);
  const Receiver expired = Stranger("expired", "IP:127.0.0.1", -1);
  const Receiver misnamed = Stranger("misnamed", "DNS:platform.example", 365);
  std::string gone;
  {
    FakeHttpServer server({""});
    gone = "http://" + server.Address();
  }
  const auto elsewhere = [&](const std::string& name, unsigned times, std::int32_t outcome, const std::string& url) {
    failures.push_back({name, times, outcome, {}, url});
  };
  elsewhere("refused", 14, 100022, gone);
  elsewhere("unknown host", 10, 100022, "http://no.such.host.invalid");
  elsewhere("reset", 14, 100022, "http://" + resetting.Address());
  elsewhere("black hole", 4, 100022, "http://" + silent.Address());
  elsewhere("slow", 4, 100020, "http://" + slow.Address());
  elsewhere("no status line", 10, 100022, "http://" + mute.Address());
  elsewhere("untrusted", 10, 100022, untrusted->GetUrl());
  elsewhere("expired", 11, 100022, expired->GetUrl());
  elsewhere("misnamed", 11, 100022, misnamed->GetUrl());

  std::vector<Receiver> receivers;
  unsigned faults = 0;
  for (const Failure& failure : failures) {
    tools::ReceiverOptions options = OptionsOf("platform");
    if (failure.misbehave) failure.misbehave(options);
    receivers.push_back(std::make_unique<tools::ReferenceReceiver>(std::move(options)));
    faults += failure.times;
  }
  EXPECT_EQ(500U, faults);
  StartService(folder_.Write(
      "trusted.pem", folder_.Read("platform.pem") + folder_.Read("expired.pem") + folder_.Read("misnamed.pem")));

  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < failures.size(); ++i) {
    threads.emplace_back([&, i] { SendAll(failures[i], receivers[i]->GetUrl()); });
  }
  for (std::thread& thread : threads) thread.join();

  for (std::size_t i = 0; i < failures.size(); ++i) {
    const Failure& failure = failures[i];
    std::set<std::string> texts;
    const auto payloads = receivers[i]->GetPayloads();
    for (const auto& payload : payloads) texts.insert(payload.text);
    EXPECT_EQ(2 * failure.times, texts.size()) << "lost: " << failure.name;
    EXPECT_EQ(texts.size(), payloads.size()) << "counted twice: " << failure.name;
  }
  EXPECT_EQ(24, CountLines("answered: lost"));
  EXPECT_EQ(24, CountLines("answered: truncated"));
  EXPECT_EQ(24, CountLines("answered: reset in the body"));
  EXPECT_EQ(4, CountLines("answered: stalled in the body"));
  for (const Receiver* stranger : {&untrusted, &expired, &misnamed}) EXPECT_EQ(0U, (*stranger)->GetRequestCount());
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
