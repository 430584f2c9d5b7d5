#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "common/src/http/HttpRequest.h"

namespace zagent::common {
namespace {

using fakes::VirtualSlot;

TEST(HttpVirtualOrderTest, ARequestHasItsMethodBehindTheDestructorsAndAllElseBeforeThem) {
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetUrl), 0U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetState), 1U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetResponse), 2U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::Cancel), 3U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetMethod), 6U);
}

}  // namespace
}  // namespace zagent::common
