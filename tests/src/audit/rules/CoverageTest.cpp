#include "src/audit/rules/Coverage.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;

class CoverageTest : public ::testing::Test {
 protected:
  Coverage Find(bool wants_extended) {
    AuditSocket socket(kernel_, "Test");
    return FindCoverage(socket, wants_extended);
  }

  fakes::LogCapture log_;
  fakes::FakeAuditNetlink kernel_;
};

TEST_F(CoverageTest, IsNotAskedForUnlessItIsWanted) {
  const Coverage coverage = Find(false);
  EXPECT_FALSE(coverage.extended || coverage.io_uring);
  EXPECT_TRUE(kernel_.calls.empty());
  EXPECT_TRUE(log_.Has(kInformation, "Extended coverage is off"));
}

TEST_F(CoverageTest, HasIoUringWhereTheKernelTakesItAndLeavesNothingThere) {
  const Coverage coverage = Find(true);
  EXPECT_TRUE(coverage.extended && coverage.io_uring);
  EXPECT_TRUE(kernel_.Rules().empty());
  EXPECT_EQ(kernel_.calls.size(), 2U);
  EXPECT_TRUE(log_.Has(kInformation,
                       "Extended coverage is on: times of files, opening by handle, opening with O_CREAT or O_TRUNC, "
                       "io_uring"));
}

TEST_F(CoverageTest, DoesWithoutIoUringWhereTheKernelRefusesIt) {
  kernel_.takes_io_uring = false;
  const Coverage coverage = Find(true);
  EXPECT_TRUE(coverage.extended);
  EXPECT_FALSE(coverage.io_uring);
  EXPECT_EQ(log_.Count("The kernel takes no rules for io_uring: Invalid argument (22)"), 1);
  EXPECT_TRUE(log_.Has(kInformation, "The kernel takes no rules for io_uring"));
  EXPECT_TRUE(log_.Has(kInformation, "Extended coverage is on: "));
  EXPECT_FALSE(log_.Has(", io_uring"));
}

TEST_F(CoverageTest, TriesWithARuleThatHidesNothing) {
  kernel_.refuse_delete = [](const fakes::SeenRule&) { return EPERM; };
  EXPECT_TRUE(Find(true).io_uring);
  ASSERT_EQ(kernel_.Rules().size(), 1U);
  const fakes::SeenRule trial = kernel_.Rules().front();
  EXPECT_EQ(trial.flags, 7U);
  EXPECT_TRUE(trial.HasSyscall(0));  // the operation that does nothing
  EXPECT_EQ(trial.SyscallCount(), 1U);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "Failed to delete exclusion rule ostrel_ignore_rule_io_uring: Operation not permitted (1)"));
  // It is there still when the next one asks.
  EXPECT_TRUE(Find(true).io_uring);
}

}  // namespace
}  // namespace zagent::audit::internal
