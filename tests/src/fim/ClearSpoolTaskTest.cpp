#include "src/fim/ClearSpoolTask.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/MemoryStorage.h"

namespace zagent::fim::internal {
namespace {

class ClearSpoolTaskTest : public testing::Test {
 protected:
  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  fakes::MemoryStorage storage_;
};

TEST_F(ClearSpoolTaskTest, HowTheClearingEndedIsLogged) {
  ClearSpool(storage_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[FIM]: Successfully cleared spool storage"));
  EXPECT_FALSE(log_.Has("Failed to clear spool storage"));
  storage_.clear_result = false;
  ClearSpool(storage_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to clear spool storage"));
}

TEST_F(ClearSpoolTaskTest, ItRunsOnce) {
  ClearSpoolTask task(storage_, clock_);
  EXPECT_TRUE(task.IsDue(clock_));
  task.Start();
  ASSERT_TRUE(fakes::Eventually([&] { return !task.IsRunning(); }));
  clock_.Advance(std::chrono::hours(24));
  EXPECT_FALSE(task.IsDue(clock_));
  EXPECT_EQ(storage_.clears, 1);
}

}  // namespace
}  // namespace zagent::fim::internal
