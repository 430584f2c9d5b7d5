#include "src/audit/routing/CloneCache.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

class CloneCacheTest : public testing::Test {
 protected:
  void Add(std::int32_t child, std::uint32_t id = 1) {
    auto clone = std::make_unique<fakes::FakeEvent>();
    clone->pid = child;
    clone->id = id;
    clones_.Add(std::move(clone));
  }

  fakes::LogCapture log_;
  CloneCache clones_;
};

TEST_F(CloneCacheTest, GivesACloneAwayOnce) {
  Add(10, 7);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Added Clone event Pid: 10 to cache. Size = 1"));
  const auto clone = clones_.Take(10);
  ASSERT_TRUE(clone);
  EXPECT_EQ(clone->GetId(), 7U);
  EXPECT_FALSE(clones_.Take(10));
  EXPECT_TRUE(log_.Has("Process with pid 10 does not exist in Clone Cache"));
}

TEST_F(CloneCacheTest, ALaterCloneOfAPidReplacesTheEarlier) {
  Add(10, 7);
  Add(10, 8);
  EXPECT_EQ(clones_.Take(10)->GetId(), 8U);
  EXPECT_FALSE(clones_.Take(10));
}

TEST_F(CloneCacheTest, KeepsTheLatestForty) {
  for (std::int32_t child = 1; child <= 41; ++child) Add(child);
  EXPECT_TRUE(log_.Has("Added Clone event Pid: 41 to cache. Size = 40"));
  EXPECT_FALSE(clones_.Take(1));
  EXPECT_TRUE(clones_.Take(2));
  EXPECT_TRUE(clones_.Take(41));
}

TEST_F(CloneCacheTest, ForgetsOneOrAll) {
  Add(10);
  Add(11);
  Add(12);
  clones_.Erase(10);
  EXPECT_FALSE(clones_.Take(10));
  EXPECT_TRUE(clones_.Take(11));
  clones_.Clear();
  EXPECT_FALSE(clones_.Take(12));
}

}  // namespace
}  // namespace zagent::audit::internal
