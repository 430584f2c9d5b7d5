#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "common/src/storage/DataFormatter.h"
#include "common/src/storage/Storage.h"

namespace zagent::common {
namespace {

using fakes::VirtualSlot;

TEST(StorageVirtualOrderTest, StorageAsksForSpaceFirstAndHasItsOperationsBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&Storage::HasFreeSpace), 0U);
  EXPECT_EQ(VirtualSlot(&Storage::ClearAsync), 3U);
  EXPECT_EQ(VirtualSlot(&Storage::Delete), 4U);
  EXPECT_EQ(VirtualSlot(&Storage::DeleteAsync), 5U);
  EXPECT_EQ(VirtualSlot(&Storage::Read), 6U);
  EXPECT_EQ(VirtualSlot(&Storage::ReadAsync), 7U);
  EXPECT_EQ(VirtualSlot(&Storage::Write), 8U);
  EXPECT_EQ(VirtualSlot(&Storage::Append), 9U);
  EXPECT_EQ(VirtualSlot(&Storage::WriteAsync), 10U);
}

TEST(StorageVirtualOrderTest, DataFormatterHasItsOperationsBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&DataFormatter::Append), 2U);
  EXPECT_EQ(VirtualSlot(&DataFormatter::Finish), 3U);
  EXPECT_EQ(VirtualSlot(&DataFormatter::Size), 4U);
  EXPECT_EQ(VirtualSlot(&DataFormatter::Clear), 5U);
}

}  // namespace
}  // namespace zagent::common
