#include "src/audit/rules/BacklogLimit.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>

#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

class BacklogLimitTest : public ::testing::Test {
 protected:
  void Raise(std::uint32_t limit) { RaiseAuditBacklogLimit(socket_, limit); }

  fakes::LogCapture log_;
  fakes::FakeAuditNetlink kernel_;
  AuditSocket socket_{kernel_, "Test"};
};

TEST_F(BacklogLimitTest, RaisesALowLimit) {
  kernel_.backlog_limit = 64;
  Raise(8192);
  EXPECT_EQ(kernel_.backlog_limit, 8192U);
  EXPECT_TRUE(log_.Has("Audit backlog limit is set to 64"));
  EXPECT_TRUE(log_.Has("Audit backlog limit is set to 8192"));
}

TEST_F(BacklogLimitTest, NeverLowersALimit) {
  for (const std::uint32_t current : {8192U, 8193U}) {
    kernel_.backlog_limit = current;
    Raise(8192);
    EXPECT_EQ(kernel_.backlog_limit, current);
    EXPECT_TRUE(log_.Has("Audit backlog limit is set to " + std::to_string(current)));
  }
  EXPECT_TRUE(kernel_.calls.empty());
}

TEST_F(BacklogLimitTest, KeepsAKernelWithoutLimitAsItIs) {
  kernel_.backlog_limit = 0;
  Raise(8192);
  EXPECT_EQ(kernel_.backlog_limit, 0U);
  EXPECT_TRUE(kernel_.calls.empty());
}

TEST_F(BacklogLimitTest, GoesOnWithTheOldLimitWhenTheKernelRefuses) {
  kernel_.backlog_error = EPERM;
  Raise(8192);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Failed to set audit backlog limit to 8192. Continuing with 64"));
}

TEST_F(BacklogLimitTest, WaitsForASlowAnswerAndPassesOverAcknowledgements) {
  kernel_.eagain_before_answers = 3;
  kernel_.stray_acknowledgements = true;
  Raise(8192);
  EXPECT_EQ(kernel_.backlog_limit, 8192U);
}

TEST_F(BacklogLimitTest, LeavesALimitAloneThatItCannotLearn) {
  kernel_.answers_nothing = true;
  Raise(8192);
  EXPECT_TRUE(log_.Has("GetAuditBacklogLimit: Audit channel is busy"));
  kernel_.answers_nothing = false;

  kernel_.reply_error = EIO;
  Raise(8192);
  EXPECT_TRUE(log_.Has("GetAuditBacklogLimit: Failed to get audit reply (Input/output error (5))"));
  kernel_.reply_error = 0;
  EXPECT_EQ(kernel_.backlog_limit, 64U);
}

TEST_F(BacklogLimitTest, TellsAnAnswerOfTheWrongType) {
  kernel_.foreign_type = AUDIT_USER;
  kernel_.foreign_count = 1;
  Raise(8192);
  EXPECT_TRUE(log_.Has("GetAuditBacklogLimit: Invalid audit reply"));
  EXPECT_EQ(kernel_.backlog_limit, 64U);
}

TEST_F(BacklogLimitTest, TellsThatTheStatusCouldNotBeRequested) {
  kernel_.request_error = ENOTCONN;
  Raise(8192);
  EXPECT_TRUE(log_.Has("GetAuditBacklogLimit: Failed to get audit reply ("));
  EXPECT_EQ(kernel_.backlog_limit, 64U);
}

}  // namespace
}  // namespace zagent::audit::internal
