#include "src/edr/EventQueueLimit.h"

#include <gtest/gtest.h>

namespace zagent::edr {
namespace {

TEST(EventQueueLimitTest, SizeFollowsTheAllowedMemory) {
  EXPECT_EQ(EventQueueLimit(0), 10'000U);
  EXPECT_EQ(EventQueueLimit(33'333), 10'000U);  // n = 999,990
  EXPECT_EQ(EventQueueLimit(33'334), 10'000U);  // n = 1,000,020
  EXPECT_EQ(EventQueueLimit(100'000), 30'000U);
  EXPECT_EQ(EventQueueLimit(333'336), 100'000U);  // n = 10,000,080
  EXPECT_EQ(EventQueueLimit(333'337), 100'000U);  // n = 10,000,110
  EXPECT_EQ(EventQueueLimit(100'000'000), 100'000U);
}

}  // namespace
}  // namespace zagent::edr
