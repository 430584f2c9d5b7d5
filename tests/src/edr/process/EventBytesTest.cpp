#include "src/edr/process/EventBytes.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fakes/FakeEvent.h"

namespace zagent::edr {
namespace {

using fakes::FakeEvent;

TEST(EventBytesTest, AnOrdinaryEventHasTheMeasuredBytes) {
  EXPECT_EQ(EstimateBytes(FakeEvent(EventType::Write, "Write", "/etc/passwd")), kOrdinaryEventBytes);
  FakeEvent connection;
  connection.object_type = ObjectType::Network;
  EXPECT_EQ(EstimateBytes(connection), kOrdinaryEventBytes);
}

TEST(EventBytesTest, LongPathsCountTwice) {
  const std::string path = "/" + std::string(1'099, 'x');
  EXPECT_EQ(EstimateBytes(FakeEvent(EventType::Write, "Write", path)), kOrdinaryEventBytes + 2'000);
  FakeEvent rename(EventType::Rename, "Rename", path);
  rename.new_file = common::ImageInfo(path);
  EXPECT_EQ(EstimateBytes(rename), kOrdinaryEventBytes + 4'000);
}

TEST(EventBytesTest, LongArgumentsOfAStartCount) {
  FakeEvent start;
  start.type = EventType::ProcessStart;
  start.object_type = ObjectType::Process;
  EXPECT_EQ(EstimateBytes(start), kOrdinaryEventBytes);
  start.arguments = {std::string(10'000, 'x'), std::string(10'000, 'y')};
  EXPECT_EQ(EstimateBytes(start), kOrdinaryEventBytes + 20'000 + 2 * sizeof(std::string) - 300);
}

}  // namespace
}  // namespace zagent::edr
