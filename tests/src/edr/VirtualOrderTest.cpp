#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "src/edr/EventRule.h"

namespace zagent::edr {
namespace {

using fakes::VirtualSlot;

TEST(EdrVirtualOrderTest, ARuleAnswersItsActionsFirstThenWhatItIsAndMatchesLast) {
  EXPECT_EQ(VirtualSlot(&EventRule::GetDirectoryActions), 2U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetFileActions), 3U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetProcessActions), 4U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetNetworkActions), 5U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetId), 6U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetName), 7U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetPath), 8U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetType), 9U);
  EXPECT_EQ(VirtualSlot(&EventRule::GetEventType), 10U);
  EXPECT_EQ(VirtualSlot(&EventRule::Match), 11U);
}

}  // namespace
}  // namespace zagent::edr
