#include "common/src/http/ExponentialBackoffHttpRetryPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using ::testing::ElementsAre;

class ExponentialBackoffHttpRetryPolicyTest : public ::testing::Test {
 protected:
  ExponentialBackoffHttpRetryPolicy Policy(std::int32_t max_retries, std::int64_t interval) {
    return ExponentialBackoffHttpRetryPolicy(max_retries, interval, {}, clock_);
  }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;
};

TEST_F(ExponentialBackoffHttpRetryPolicyTest, WaitsTheBaseFirstAndHalfAsMuchAgainEachTime) {
  auto policy = Policy(8, 5);
  std::vector<std::int64_t> waits;
  while (policy.Finish(HttpStatus::ServerError, 503)) waits.push_back(policy.GetInterval());
  EXPECT_THAT(waits, ElementsAre(5, 8, 11, 17, 25, 38, 57, 85));
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, LengthensTheWaitForEveryFailureThatIsRetried) {
  auto policy = Policy(8, 5);
  policy.Finish(HttpStatus::NetworkError, 0);
  policy.Finish(HttpStatus::ProxyError, 407);
  EXPECT_EQ(8, policy.GetInterval());
  policy.Finish(HttpStatus::ClientError, 429);
  EXPECT_EQ(11, policy.GetInterval());
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, NeverWaitsLongerThanAnHour) {
  auto policy = Policy(ExponentialBackoffHttpRetryPolicy::kNoLimit, 5);
  for (int i = 0; i < 5000; ++i) ASSERT_TRUE(policy.Finish(HttpStatus::NetworkError, 0));
  EXPECT_EQ(3600, policy.GetInterval());
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, CalculatesTheWait) {
  EXPECT_EQ(5, ExponentialBackoffHttpRetryPolicy::Backoff(3600, 5, 0));
  EXPECT_EQ(3600, ExponentialBackoffHttpRetryPolicy::Backoff(3600, 5, 1));
  EXPECT_EQ(5, ExponentialBackoffHttpRetryPolicy::Backoff(3599, 5, 1));
  EXPECT_EQ(3600, ExponentialBackoffHttpRetryPolicy::Backoff(5, 3600, 2));
  EXPECT_EQ(3600, ExponentialBackoffHttpRetryPolicy::Backoff(5, 5, std::numeric_limits<std::int32_t>::max()));
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, AllowsTheGivenNumberOfRetries) {
  auto policy = Policy(1, 5);
  EXPECT_TRUE(policy.Finish(HttpStatus::ServerError, 503));
  EXPECT_TRUE(log_.Has("ExponentialBackoffHttpRetryPolicy::OnFinish: Completed attempt 1 out of 2 attempts."));
  EXPECT_FALSE(policy.Finish(HttpStatus::ServerError, 503));
  EXPECT_TRUE(log_.Has("ExponentialBackoffHttpRetryPolicy::OnFinish: Max attempts reached."));
  EXPECT_TRUE(log_.Has("HttpRetryPolicy::Finish: Retries exhausted, not allowing retry for HTTP response code 503"));
  EXPECT_FALSE(Policy(0, 5).Finish(HttpStatus::NetworkError, 0));
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, NeverReportsMaxAttemptsWithoutALimit) {
  auto policy = Policy(-1, 0);
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(policy.Finish(HttpStatus::ServerError, 503));
  EXPECT_FALSE(log_.Has("Max attempts reached"));
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, DecidesByTheStatus) {
  EXPECT_FALSE(Policy(3, 5).Finish(HttpStatus::Aborted, 0));
  EXPECT_TRUE(Policy(3, 5).Finish(HttpStatus::Success, 200));
  EXPECT_TRUE(Policy(3, 5).Finish(HttpStatus::PartialSuccess, 206));
  EXPECT_FALSE(Policy(3, 5).Finish(HttpStatus::ClientError, 404));
  EXPECT_TRUE(Policy(3, 5).Finish(HttpStatus::ClientError, 429));
  EXPECT_TRUE(Policy(3, 5).Finish(HttpStatus::ServerError, 500));
  EXPECT_TRUE(Policy(3, 5).Finish(HttpStatus::NetworkError, 0));
  EXPECT_FALSE(Policy(3, 5).Finish(HttpStatus::Unknown, 302));
  for (const char* text :
       {"HandleSuccess: Retrying on success/partial success.", "HandleClientError: Not retrying on client error.",
        "HandleClientError: Retrying on 429.", "HandleServerError: Retrying on server error.",
        "HandleProxyOrNetworkError: Retrying on proxy or network error.",
        "HandleUnknownError: Not retrying on unknown error."}) {
    EXPECT_TRUE(log_.Has(std::string("ExponentialBackoffHttpRetryPolicy::") + text)) << text;
  }
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, BeginsToCountAnewAfterSuccess) {
  auto policy = Policy(1, 5);
  EXPECT_TRUE(policy.Finish(HttpStatus::ServerError, 503));
  auto clone = policy.Clone();
  EXPECT_FALSE(clone->Finish(HttpStatus::ServerError, 503)) << "a copy has made as many";
  auto successful = Policy(1, 5);
  EXPECT_TRUE(successful.Finish(HttpStatus::PartialSuccess, 206));
  EXPECT_TRUE(successful.Finish(HttpStatus::ServerError, 503));
}

TEST_F(ExponentialBackoffHttpRetryPolicyTest, RefusesWhatCannotBe) {
  const auto error_of = [&](std::int32_t retries, std::int64_t interval) -> std::string {
    try {
      Policy(retries, interval);
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "accepted";
  };
  EXPECT_EQ("ExponentialBackoffHttpRetryPolicy: Invalid max-retries = -2", error_of(-2, 5));
  EXPECT_EQ("HttpRetryPolicy: Backoff interval cannot be greater than 3600 seconds", error_of(3, 3601));
  EXPECT_EQ("accepted", error_of(-1, 3600));
}

}  // namespace
}  // namespace zagent::common
