#include "src/audit/events/FileEventCache.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using std::chrono::seconds;

class FileEventCacheTest : public ::testing::Test {
 protected:
  // An event of `pid` that happened `age` ago.
  void Add(std::uint32_t id, std::int32_t pid, seconds age = seconds(0)) {
    auto event = std::make_unique<fakes::FakeEvent>();
    event->id = id;
    event->pid = pid;
    event->timestamp = common::util::ToNanoseconds(clock_.Now() - age);
    cache_.Add(std::move(event));
  }
  static std::vector<std::uint32_t> Ids(const FileEventCache::Events& events) {
    std::vector<std::uint32_t> ids;
    for (const auto& event : events) ids.push_back(event->GetId());
    return ids;
  }
  using IdList = std::vector<std::uint32_t>;

  fakes::FakeClock clock_;
  FileEventCache cache_{clock_};
};

TEST_F(FileEventCacheTest, KeepsAnEventForThirtySeconds) {
  Add(1, 100);
  clock_.Advance(seconds(30));
  EXPECT_TRUE(cache_.Expire().empty());
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{1});
  EXPECT_EQ(cache_.GetSize(), 0U);
  EXPECT_EQ(cache_.GetProcessCount(), 0U);
  EXPECT_TRUE(cache_.Expire().empty());
}

TEST_F(FileEventCacheTest, KeepsAnEventOfExactlyThirtySecondsBesideOneThatIsDue) {
  Add(1, 100, seconds(31));
  Add(2, 200, seconds(30));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{1});
}

TEST_F(FileEventCacheTest, GivesTheOldestEventFirstAcrossProcesses) {
  Add(3, 100, seconds(31));
  Add(4, 100, seconds(31));
  Add(1, 200, seconds(33));
  Add(2, 300, seconds(32));
  EXPECT_EQ(Ids(cache_.Expire()), (IdList{1, 2, 3, 4}));
}

TEST_F(FileEventCacheTest, LetsYoungerEventsOfTheSameProcessStay) {
  Add(1, 100, seconds(40));
  Add(2, 100, seconds(10));
  Add(3, 100, seconds(40));  // behind a younger one: waits for it
  EXPECT_EQ(Ids(cache_.Expire()), IdList{1});
  EXPECT_EQ(cache_.GetSize(), 2U);
  clock_.Advance(seconds(21));
  EXPECT_EQ(cache_.Expire().size(), 2U);
}

TEST_F(FileEventCacheTest, LetsTheOldestOfMoreThanAThousandEventsOfAProcessGoEarly) {
  for (std::uint32_t id = 1; id <= 1000; ++id) Add(id, 100);
  EXPECT_TRUE(cache_.Expire().empty());
  Add(1001, 100);
  Add(1002, 100);
  Add(5000, 200);
  EXPECT_EQ(Ids(cache_.Expire()), (IdList{1, 2}));
  EXPECT_EQ(cache_.GetSize(), 1001U);
}

TEST_F(FileEventCacheTest, FlushesAllEventsOfOneProcessInOrder) {
  Add(1, 100);
  Add(2, 200);
  Add(3, 100);
  EXPECT_EQ(Ids(cache_.Flush(100)), (IdList{1, 3}));
  EXPECT_EQ(cache_.GetSize(), 1U);
  EXPECT_EQ(cache_.GetProcessCount(), 1U);
  EXPECT_TRUE(cache_.Flush(100).empty());
}

TEST_F(FileEventCacheTest, StillExpiresWhatIsLeftAfterAFlushOfTheOldest) {
  Add(1, 100, seconds(20));
  Add(2, 200, seconds(10));
  EXPECT_EQ(cache_.Flush(100).size(), 1U);
  clock_.Advance(seconds(15));
  EXPECT_TRUE(cache_.Expire().empty());
  clock_.Advance(seconds(6));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{2});
}

TEST_F(FileEventCacheTest, TakesItsLimitsFromTheConstructor) {
  FileEventCache small(clock_, 2, seconds(5));
  for (std::uint32_t id = 1; id <= 3; ++id) {
    auto event = std::make_unique<fakes::FakeEvent>();
    event->id = id;
    event->timestamp = common::util::ToNanoseconds(clock_.Now());
    small.Add(std::move(event));
  }
  EXPECT_EQ(Ids(small.Expire()), IdList{1});
  clock_.Advance(seconds(6));
  EXPECT_EQ(Ids(small.Expire()), (IdList{2, 3}));
}

TEST_F(FileEventCacheTest, SaysHowMuchItHolds) {
  const fakes::LogCapture log;
  Add(1, 100);
  Add(2, 100);
  Add(3, 200);
  static_cast<void>(cache_.Expire());
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "FileEventCache size: 2 processes, 3 events")) << log.All();
}

}  // namespace
}  // namespace zagent::audit::internal
