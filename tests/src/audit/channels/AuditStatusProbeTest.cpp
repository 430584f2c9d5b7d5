#include "src/audit/channels/AuditStatusProbe.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>

#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit {
namespace {

class AuditStatusProbeTest : public testing::Test {
 protected:
  fakes::LogCapture log_;
  fakes::FakeAuditNetlink kernel_;
  AuditStatusProbe probe_{kernel_};
};

TEST_F(AuditStatusProbeTest, AnswersOnceWithWhatTheKernelSays) {
  kernel_.enabled = 2;
  kernel_.consumer_pid = 4711;
  kernel_.lost = 12;
  probe_.Ask();
  const auto status = probe_.Poll();
  ASSERT_TRUE(status);
  EXPECT_EQ(status->enabled, 2U);
  EXPECT_EQ(status->consumer_pid, 4711U);
  EXPECT_EQ(status->lost, 12U);
  EXPECT_FALSE(probe_.Poll());
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U) << "the socket was for one question";
}

TEST_F(AuditStatusProbeTest, NeverWaitsForTheAnswer) {
  kernel_.eagain_before_answers = 2;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
  EXPECT_FALSE(probe_.Poll());
  EXPECT_TRUE(probe_.Poll()) << "it has come in the meantime";
  EXPECT_EQ(kernel_.Waits(), 0);
}

TEST_F(AuditStatusProbeTest, ReadsPastOtherMessages) {
  kernel_.stray_acknowledgements = true;
  kernel_.foreign_type = AUDIT_SYSCALL;
  kernel_.foreign_count = 3;
  probe_.Ask();
  EXPECT_TRUE(probe_.Poll());
}

TEST_F(AuditStatusProbeTest, GivesUpOnASocketFullOfOtherMessages) {
  kernel_.foreign_type = AUDIT_SYSCALL;
  kernel_.foreign_count = 1000;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U);
}

TEST_F(AuditStatusProbeTest, TakesAStatusOfAnOlderKernelButNoneThatIsCutShort) {
  constexpr std::size_t kBehindLost = sizeof(audit_status) - offsetof(audit_status, lost) - sizeof(std::uint32_t);
  kernel_.lost = 5;
  kernel_.status_cut = kBehindLost;
  probe_.Ask();
  const auto status = probe_.Poll();
  ASSERT_TRUE(status);
  EXPECT_EQ(status->lost, 5U);
  kernel_.status_cut = kBehindLost + 1;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
}

TEST_F(AuditStatusProbeTest, ARefusalIsNoAnswer) {
  kernel_.refusal = EPERM;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U);
  kernel_.refusal = 0;
  kernel_.request_error = EPERM;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
  EXPECT_EQ(kernel_.OpenDescriptors(), 0U);
  kernel_.request_error = 0;
  kernel_.open_error = EMFILE;
  probe_.Ask();
  EXPECT_FALSE(probe_.Poll());
  EXPECT_EQ(log_.Count("AuditStatusProbe: Failed to ask for the audit status: "), 2) << log_.All();
}

TEST_F(AuditStatusProbeTest, ANewQuestionReplacesAnUnansweredOne) {
  kernel_.lost = 1;
  probe_.Ask();
  kernel_.lost = 2;
  probe_.Ask();
  EXPECT_EQ(kernel_.OpenDescriptors(), 1U);
  EXPECT_EQ(probe_.Poll()->lost, 2U);
}

}  // namespace
}  // namespace zagent::audit
