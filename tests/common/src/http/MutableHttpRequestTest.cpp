#include "common/src/http/MutableHttpRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <future>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeInterceptor.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = HttpRequest::State;

using Bytes = std::vector<unsigned char>;

Bytes BytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

class ThrowingProcessor final : public HttpPostProcessor {
 public:
  void Process(const HttpRequest&) override { throw 42; }
};

class MutableHttpRequestTest : public ::testing::Test {
 protected:
  fakes::FakeInterceptor& AddInterceptor(const std::string& name) {
    auto interceptor = std::make_unique<fakes::FakeInterceptor>(name, calls_);
    fakes::FakeInterceptor& added = *interceptor;
    interceptors_.push_back(std::move(interceptor));
    return added;
  }

  std::shared_ptr<MutableHttpRequest> Make(std::uint64_t max_attempts = 1) {
    HttpRequestSettings settings;
    settings.retry_policy =
        std::make_unique<DefaultHttpRetryPolicy>(max_attempts, 5, HttpRetryPolicy::Predicate(), clock_);
    settings.on_finished = on_finished_;
    return std::make_shared<MutableHttpRequest>(HttpMethod::Post, "https://p/x", HttpHeaders{{"A", "1"}},
                                                BytesOf("payload"), std::move(interceptors_), std::move(settings));
  }

  static std::string CancelledError(const HttpRequest& request) {
    try {
      request.GetResponse();
    } catch (const HttpException& error) {
      return error.what();
    }
    return "a response";
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  std::vector<std::string> calls_;
  HttpInterceptors interceptors_;
  std::function<void(const HttpRequest&)> on_finished_;
};

TEST_F(MutableHttpRequestTest, RunsRequestsInBuildingOrderAndResponsesInReverse) {
  AddInterceptor("first");
  AddInterceptor("second");
  const auto request = Make();
  request->BeginAttempt();
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_THAT(calls_, ElementsAre("first:request POST", "second:request POST", "second:chunk", "first:chunk",
                                  "second:response", "first:response"));
}

TEST_F(MutableHttpRequestTest, EndsTheChainOfChunksWhenAnInterceptorStopsIt) {
  AddInterceptor("first");
  AddInterceptor("second").on_chunk = [](const Bytes&, Bytes&) { return HttpInterceptor::ChunkResult::Stop; };
  const auto request = Make();
  request->AppendResponseData("body", 4);
  request->SetStatus(HttpStatus::ClientError, 404, 0);
  EXPECT_THAT(calls_, ElementsAre("second:chunk"));
  EXPECT_EQ(BytesOf("body"), request->GetResponse().GetPayload());
}

TEST_F(MutableHttpRequestTest, LetsOnlyTheFirstStepPrepareThePayload) {
  std::vector<std::string> prepared;
  for (const char* name : {"first", "second"}) {
    AddInterceptor(name).on_prepare = [&prepared, name](const Bytes& payload) {
      prepared.push_back(name + (" " + std::string(payload.begin(), payload.end())));
    };
  }
  const auto request = Make();
  request->BeginAttempt();
  EXPECT_THAT(prepared, ElementsAre("first payload")) << "what the second gets is not known yet";
}

TEST_F(MutableHttpRequestTest, ShowsItsStepsEveryAttemptThatWasSent) {
  std::vector<std::string> shown;
  AddInterceptor("observer").on_attempt_ended = [&shown](const HttpAttempt& attempt) {
    shown.push_back(attempt.url + " " + std::to_string(static_cast<int>(attempt.status)) + " " +
                    std::to_string(attempt.http_code) + " " + std::string(attempt.body.begin(), attempt.body.end()) +
                    " " + (attempt.headers.contains("Z-SRV") ? "platform" : "other"));
    throw std::runtime_error("unmoved");
  };
  const auto request = Make();
  request->SetStatus(HttpStatus::NetworkError, 0, 7);  // not begun
  request->BeginAttempt();
  request->AddResponseHeader("Z-SRV: x");
  request->AppendResponseData("moved", 5);
  request->SetStatus(HttpStatus::ClientError, 404, 0);
  EXPECT_THAT(shown, ElementsAre("https://p/x 6 404 moved platform"));
  EXPECT_EQ(HttpRequest::State::Failed, request->GetState());
  EXPECT_TRUE(log_.Has("unmoved"));
}

TEST_F(MutableHttpRequestTest, ShowsItsStepsNoMoreThanTheBeginningOfABody) {
  std::size_t shown = 0;
  AddInterceptor("observer").on_attempt_ended = [&](const HttpAttempt& attempt) { shown = attempt.body.size(); };
  const auto request = Make();
  request->BeginAttempt();
  const Bytes body(MutableHttpRequest::kMaxShownBody + 1, 'x');
  request->AppendResponseData(body.data(), body.size());
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(MutableHttpRequest::kMaxShownBody, shown);
  EXPECT_EQ(body.size(), request->GetResponse().GetPayload().size());
}

TEST_F(MutableHttpRequestTest, ShowsItsStepsNoAttemptThatWasCancelled) {
  int shown = 0;
  AddInterceptor("observer").on_attempt_ended = [&](const HttpAttempt&) { ++shown; };
  const auto request = Make();
  request->BeginAttempt();
  request->SetStatus(HttpStatus::Aborted, 0, 42);
  EXPECT_EQ(0, shown);
}

TEST_F(MutableHttpRequestTest, HandsTheReplacedChunkOn) {
  AddInterceptor("last").on_chunk = [](const Bytes& chunk, Bytes& output) {
    output = BytesOf("<" + std::string(chunk.begin(), chunk.end()) + ">");
    return HttpInterceptor::ChunkResult::Replaced;
  };
  AddInterceptor("first").on_chunk = [](const Bytes& chunk, Bytes& output) {
    output = BytesOf("[" + std::string(chunk.begin(), chunk.end()) + "]");
    return HttpInterceptor::ChunkResult::Replaced;
  };
  const auto request = Make();
  request->AppendResponseData("bo", 2);
  request->AppendResponseData("dy", 2);
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(BytesOf("<[body]>"), request->GetResponse().GetPayload());
}

TEST_F(MutableHttpRequestTest, DoesNotRunChunksOfAServerErrorThroughTheChain) {
  AddInterceptor("only");
  const auto request = Make(0);
  request->AppendResponseData("body", 4);
  request->SetStatus(HttpStatus::ServerError, 503, 0);
  EXPECT_THAT(calls_, IsEmpty());
  EXPECT_EQ(BytesOf("body"), request->GetResponse().GetPayload());
}

TEST_F(MutableHttpRequestTest, BeginsEveryAttemptFromWhatWasGiven) {
  AddInterceptor("marker").on_request = [](Bytes& payload, HttpHeaders& headers) {
    payload.push_back('!');
    headers["Mark"] += "x";
  };
  const auto request = Make(3);
  for (int attempt = 0; attempt < 2; ++attempt) {
    request->BeginAttempt();
    EXPECT_EQ(BytesOf("payload!"), request->GetAttempt().payload);
    EXPECT_EQ("x", request->GetAttempt().headers.at("Mark"));
    EXPECT_EQ("1", request->GetAttempt().headers.at("a"));
    request->SetStatus(HttpStatus::ServerError, 503, 0);
    EXPECT_EQ(State::WaitingForRetry, request->GetState());
  }
}

TEST_F(MutableHttpRequestTest, DropsWhatAFailedAttemptBroughtBeforeTheNext) {
  const auto request = Make(1);
  request->AddResponseHeader("HTTP/1.1 503 Service Unavailable\r\n");
  request->AddResponseHeader("Retry-After: 1\r\n");
  request->AppendResponseData("busy", 4);
  request->SetStatus(HttpStatus::ServerError, 503, 0);
  EXPECT_FALSE(request->IsRetryDue());
  clock_.Advance(std::chrono::seconds(5));
  EXPECT_TRUE(request->IsRetryDue());
  request->BeginAttempt();
  EXPECT_EQ(State::InFlight, request->GetState());
  request->AppendResponseData("ok", 2);
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(BytesOf("ok"), request->GetResponse().GetPayload());
  EXPECT_THAT(request->GetResponse().GetHeaders(), IsEmpty());
}

TEST_F(MutableHttpRequestTest, FailsWhenThePolicyAllowsNoMore) {
  const auto request = Make(0);
  request->SetStatus(HttpStatus::NetworkError, 0, 7);
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_EQ(HttpStatus::NetworkError, request->GetResponse().GetStatus());
  EXPECT_EQ(0, request->GetResponse().GetHttpCode());
  EXPECT_EQ(7, request->GetCurlCode());
}

TEST_F(MutableHttpRequestTest, HasFourAttemptsFiveSecondsApartWhenNoPolicyIsGiven) {
  MutableHttpRequest request(HttpMethod::Get, "https://p/x", {}, {}, {}, HttpRequestSettings());
  for (int attempt = 1; attempt <= 3; ++attempt) {
    request.SetStatus(HttpStatus::ServerError, 503, 0);
    EXPECT_EQ(State::WaitingForRetry, request.GetState());
    EXPECT_FALSE(request.IsRetryDue());
    EXPECT_LE(request.GetRemainingWait(), std::chrono::seconds(5));
  }
  request.SetStatus(HttpStatus::ServerError, 503, 0);
  EXPECT_EQ(State::Failed, request.GetState());
}

TEST_F(MutableHttpRequestTest, FailsOnARequestThatWasNeverStarted) {
  const auto request = Make(3);
  request->SetStatus(HttpStatus::NotStarted, 0, 0);
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_EQ(HttpStatus::NotStarted, request->GetResponse().GetStatus());
}

TEST_F(MutableHttpRequestTest, FailsOnAPartThatNobodyAskedFor) {
  const auto request = Make(3);
  request->SetStatus(HttpStatus::PartialSuccess, 206, 0);
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_EQ(206, request->GetResponse().GetHttpCode());
}

TEST_F(MutableHttpRequestTest, HasNoResponseWhenAborted) {
  const auto request = Make();
  request->SetStatus(HttpStatus::Aborted, 0, 42);
  EXPECT_EQ(State::Cancelled, request->GetState());
  EXPECT_EQ("Response isn't available for cancelled HTTP request for https://p/x", CancelledError(*request));
}

TEST_F(MutableHttpRequestTest, RefusesAStatusThatIsNone) {
  const auto request = Make();
  try {
    request->SetStatus(static_cast<HttpStatus>(42), 0, 0);
    FAIL() << "accepted";
  } catch (const HttpException& error) {
    EXPECT_STREQ("Unsupported StatusCode: 42", error.what());
  }
}

TEST_F(MutableHttpRequestTest, FailsWithoutARetryWhenAResponseCannotBeProcessed) {
  AddInterceptor("strict").on_response = [](MutableHttpResponse&) { throw HttpInterceptorException("bad seal"); };
  const auto request = Make(3);
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_NE(HttpStatus::Success, request->GetResponse().GetStatus());
  EXPECT_EQ(200, request->GetResponse().GetHttpCode());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to finish the http response for https://p/x"));
  EXPECT_TRUE(log_.Has("Response processing failed, error: bad seal"));
}

TEST_F(MutableHttpRequestTest, FailsInsteadOfHangingWhenAnInterceptorThrowsSomethingElse) {
  AddInterceptor("broken").on_chunk = [](const Bytes&, Bytes&) -> HttpInterceptor::ChunkResult {
    throw std::out_of_range("oops");
  };
  const auto request = Make(3);
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Failed, request->GetState());
}

TEST_F(MutableHttpRequestTest, WakesWhoeverWaitsOnlyWhenItIsFinal) {
  const auto request = Make(1);
  auto waiter = std::async(std::launch::async, [&] { return request->GetResponse().GetHttpCode(); });
  request->SetStatus(HttpStatus::ServerError, 503, 0);
  request->SetStatus(HttpStatus::Success, 202, 0);
  EXPECT_EQ(202, waiter.get());
}

TEST_F(MutableHttpRequestTest, CallsBackOnceAndWithoutItsLock) {
  int calls = 0;
  on_finished_ = [&](const HttpRequest& finished) {
    ++calls;
    EXPECT_EQ(200, finished.GetResponse().GetHttpCode());
    EXPECT_EQ(State::Completed, finished.GetState());
  };
  const auto request = Make(1);
  request->SetStatus(HttpStatus::ServerError, 503, 0);
  EXPECT_EQ(0, calls);
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(1, calls);
}

TEST_F(MutableHttpRequestTest, FailsWhenTheCallbackDoes) {
  on_finished_ = [](const HttpRequest&) { throw HttpException("callback failed"); };
  const auto request = Make();
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Failed, request->GetState());
  EXPECT_TRUE(log_.Has("Failed to finish the http response for https://p/x callback failed"));
}

TEST_F(MutableHttpRequestTest, TakesWhatIsNoStdExceptionForAFailureToo) {
  AddInterceptor("broken").on_chunk = [](const Bytes&, Bytes&) -> HttpInterceptor::ChunkResult { throw 42; };
  const auto refused = Make(3);
  refused->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Failed, refused->GetState());
  EXPECT_EQ("unknown failure", refused->GetResponse().GetMessage());

  on_finished_ = [](const HttpRequest&) { throw 42; };
  const auto finished = Make();
  finished->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Failed, finished->GetState());
  on_finished_ = nullptr;

  const auto processed = Make();
  processed->SetPostProcessor(std::make_shared<ThrowingProcessor>());
  processed->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Completed, processed->GetState()) << "the outcome is fixed by then";

  AddInterceptor("curious").on_attempt_ended = [](const HttpAttempt&) { throw 42; };
  const auto shown = Make();
  shown->BeginAttempt();
  shown->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(State::Completed, shown->GetState()) << "who only looks on changes nothing";
  EXPECT_TRUE(log_.Has("Failed to show an interceptor the answer for https://p/x unknown failure"));
}

TEST_F(MutableHttpRequestTest, IsEndedForWhoeverWaits) {
  int calls = 0;
  on_finished_ = [&](const HttpRequest&) { ++calls; };
  const auto request = Make(3);
  auto waiter = std::async(std::launch::async, [&] { return request->GetResponse().GetMessage(); });
  request->Fail("nothing works");
  EXPECT_EQ("nothing works", waiter.get());
  EXPECT_EQ(State::Failed, request->GetState());
  request->Fail("once more");
  EXPECT_EQ("nothing works", request->GetResponse().GetMessage());
  EXPECT_EQ(1, calls);

  AddInterceptor("hasty").on_response = [](MutableHttpResponse& response) {
    response.Finalize();
    throw HttpInterceptorException("too late");
  };
  const auto finalized = Make(3);
  EXPECT_THROW(finalized->SetStatus(HttpStatus::Success, 200, 0), HttpException);
  finalized->Fail("cannot be told any more");
  EXPECT_EQ(State::Failed, finalized->GetState());
}

TEST_F(MutableHttpRequestTest, MarksACancelAndWakesTheWorker) {
  const auto request = Make();
  const auto wake_up = std::make_shared<WakeUp>();
  request->SetWakeUp(wake_up);
  EXPECT_FALSE(request->IsCancelled());
  request->Cancel();
  EXPECT_TRUE(request->IsCancelled());
  pollfd woken{wake_up->GetFd(), POLLIN, 0};
  EXPECT_EQ(1, poll(&woken, 1, 0));
}

TEST_F(MutableHttpRequestTest, ComparesHeaderNamesWithoutCase) {
  const auto request = Make();
  request->AddResponseHeader("z-srv: platform\r\n");
  EXPECT_TRUE(request->HasResponseHeader("Z-SRV"));
  EXPECT_FALSE(request->HasResponseHeader("Z-SR"));
}

TEST_F(MutableHttpRequestTest, ReplacesAHeaderThatComesTwice) {
  const auto request = Make();
  request->AddResponseHeader("X-Tag: one\r\n");
  request->AddResponseHeader("x-tag:  two \r\n");
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ("two", request->GetResponse().GetHeaders().at("X-Tag"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Header x-tag is present in response. Deleting it."));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Response Header: X-Tag : one"));
}

TEST_F(MutableHttpRequestTest, ForgetsTheHeadersOfAnInterimAnswer) {
  const auto request = Make();
  request->AddResponseHeader("HTTP/1.1 100 Continue\r\n");
  request->AddResponseHeader("Z-SRV: early\r\n");
  request->AddResponseHeader("HTTP/1.1 503 Service\x1b Unavailable\r\n");
  EXPECT_FALSE(request->HasResponseHeader("Z-SRV"));
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ("Service? Unavailable", request->GetResponse().GetMessage());
}

TEST_F(MutableHttpRequestTest, NotesAHeaderLineWithoutColon) {
  const auto request = Make();
  request->AddResponseHeader("no header\r\n");
  request->AddResponseHeader("\r\n");
  EXPECT_EQ(1, log_.Count("Malformed HTTP response header: "));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Malformed HTTP response header: no header"));
}

TEST_F(MutableHttpRequestTest, BoundsHeadersAndBody) {
  const auto request = Make();
  for (int i = 0; i < 1000; ++i) request->AddResponseHeader("X-" + std::to_string(i) + ": 1");
  const Bytes block(MutableHttpRequest::kMaxResponseSize / 4);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(request->AppendResponseData(block.data(), block.size()));
  EXPECT_FALSE(request->AppendResponseData(block.data(), 1));
  request->SetStatus(HttpStatus::Success, 200, 0);
  EXPECT_EQ(MutableHttpRequest::kMaxResponseHeaders, request->GetResponse().GetHeaders().size());
}

TEST_F(MutableHttpRequestTest, RefusesANullBody) {
  const auto request = Make();
  EXPECT_FALSE(request->AppendResponseData(nullptr, 4));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Response payload is NULL for HTTP request for https://p/x"));
}

class HttpResponseTest : public ::testing::Test {
 protected:
  template <typename Call>
  static std::string ErrorOf(Call&& call) {
    try {
      call();
    } catch (const HttpException& error) {
      return error.what();
    }
    return "no error";
  }
  InMemoryHttpResponse response_;
};

TEST_F(HttpResponseTest, RefusesEveryChangeOnceFinalized) {
  response_.AddHeader("A", "1");
  response_.SetStatus(HttpStatus::Success);
  response_.Finalize();
  EXPECT_EQ("Cannot add header to HttpResponse after it has been finalized",
            ErrorOf([&] { response_.AddHeader("B", "2"); }));
  EXPECT_EQ("Cannot remove header from HttpResponse after it has been finalized",
            ErrorOf([&] { response_.RemoveHeader("A"); }));
  EXPECT_EQ("Cannot remove header from HttpResponse after it has been finalized",
            ErrorOf([&] { response_.ClearHeaders(); }));
  EXPECT_EQ("Cannot update HttpResponse payload after it has been finalized",
            ErrorOf([&] { response_.UpdatePayload({1}); }));
  EXPECT_EQ("Cannot update HttpResponse status after it has been finalized",
            ErrorOf([&] { response_.SetStatus(HttpStatus::ClientError); }));
  EXPECT_TRUE(response_.HasHeader("a"));
  EXPECT_THAT(response_.GetPayload(), IsEmpty());
}

TEST_F(HttpResponseTest, CannotGoBackToTheBeginning) {
  EXPECT_NO_THROW(response_.SetStatus(HttpStatus::NotStarted));
  response_.SetStatus(HttpStatus::ServerError);
  EXPECT_EQ("Cannot reset HttpResponse to initial state",
            ErrorOf([&] { response_.SetStatus(HttpStatus::NotStarted); }));
}

TEST_F(HttpResponseTest, ReplacesTheBody) {
  response_.UpdatePayload({1, 2});
  response_.UpdatePayload({3});
  EXPECT_THAT(response_.GetPayload(), ElementsAre(3));
}

}  // namespace
}  // namespace zagent::common
