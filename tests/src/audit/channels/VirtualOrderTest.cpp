#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "src/audit/channels/IOChannel.h"

namespace zagent::audit {
namespace {

using fakes::VirtualSlot;

// Opens what only derived classes may name.
class OpenChannel : public IOChannel {
 public:
  using IOChannel::OnEOF;
  using IOChannel::OnRead;
  using IOChannel::OnTimeout;
  using IOChannel::Read;
};

TEST(ChannelVirtualOrderTest, AChannelHasItsEventsFirstAndWhatOthersCallBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&OpenChannel::OnRead), 0U);
  EXPECT_EQ(VirtualSlot(&OpenChannel::OnEOF), 1U);
  EXPECT_EQ(VirtualSlot(&OpenChannel::Read), 2U);
  EXPECT_EQ(VirtualSlot(&OpenChannel::OnTimeout), 3U);
  EXPECT_EQ(VirtualSlot(&IOChannel::Send), 6U);
  EXPECT_EQ(VirtualSlot(&IOChannel::Start), 7U);
  EXPECT_EQ(VirtualSlot(&IOChannel::Stop), 8U);
}

}  // namespace
}  // namespace zagent::audit
