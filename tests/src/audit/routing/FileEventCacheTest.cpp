#include "src/audit/routing/FileEventCache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "src/edr/process/EventBytes.h"
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
  FileEventCache cache_{clock_, {}};
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

TEST_F(FileEventCacheTest, KnowsHowManyBytesItHolds) {
  Add(1, 100, seconds(31));
  Add(2, 200);
  Add(3, 300);
  EXPECT_EQ(cache_.GetBytes(), 3 * edr::kOrdinaryEventBytes);
  (void)cache_.Expire();
  EXPECT_EQ(cache_.GetBytes(), 2 * edr::kOrdinaryEventBytes);
  (void)cache_.Flush(200);
  EXPECT_EQ(cache_.GetBytes(), edr::kOrdinaryEventBytes);
  cache_.Clear();
  EXPECT_EQ(cache_.GetBytes(), 0U);
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

TEST_F(FileEventCacheTest, WhoeverComesBehindAProcessWithoutEventsHasItsOwnOnly) {
  Add(1, 100, seconds(31));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{1});
  Add(2, 200, seconds(20));
  Add(3, 100, seconds(31));
  Add(4, 200, seconds(10));
  EXPECT_EQ(cache_.GetProcessCount(), 2U);
  EXPECT_TRUE(cache_.Flush(300).empty());
  EXPECT_EQ(Ids(cache_.Expire()), IdList{3});
  Add(5, 200, seconds(5));
  EXPECT_EQ(cache_.GetProcessCount(), 1U);
  EXPECT_EQ(Ids(cache_.Flush(200)), (IdList{2, 4, 5}));
  EXPECT_EQ(cache_.GetProcessCount(), 0U);
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
  FileEventCache small(clock_, {.max_process_events = 2, .max_age = seconds(5)});
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

TEST_F(FileEventCacheTest, GivesItsEventsInTheSameOrderWhateverThePortions) {
  // One object is touched by three processes in turn, several times within one second.
  const std::vector<seconds> ages = {seconds(40), seconds(40), seconds(40), seconds(39), seconds(39), seconds(35)};
  for (const std::size_t portion : {1U, 2U, 3U, 100U}) {
    for (std::uint32_t id = 0; id < 18; ++id) Add(id, 100 * static_cast<std::int32_t>(id % 3), ages[id / 3]);
    IdList order;
    while (cache_.HasDue()) {
      const FileEventCache::Events events = cache_.Expire(portion);
      ASSERT_LE(events.size(), portion);
      ASSERT_FALSE(events.empty());
      for (const std::uint32_t id : Ids(events)) order.push_back(id);
    }
    EXPECT_EQ(order, (IdList{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17})) << portion;
    EXPECT_EQ(cache_.GetSize(), 0U);
  }
}

TEST_F(FileEventCacheTest, KnowsWhetherSomethingIsDue) {
  EXPECT_FALSE(cache_.HasDue());
  Add(1, 100);
  EXPECT_FALSE(cache_.HasDue());
  clock_.Advance(seconds(31));
  EXPECT_TRUE(cache_.HasDue());
  EXPECT_EQ(cache_.Expire(1).size(), 1U);
  EXPECT_FALSE(cache_.HasDue());
}

TEST_F(FileEventCacheTest, BeyondItsBoundInAllTheOldestLeaveFirstAndOneLineTellsIt) {
  const fakes::LogCapture log;
  FileEventCache bounded(clock_, {.max_events = 4});
  const auto add = [&](std::uint32_t id) {
    auto event = std::make_unique<fakes::FakeEvent>();
    event->id = id;
    event->pid = static_cast<std::int32_t>(id);  // a process each: none of them is crowded
    event->timestamp = common::util::ToNanoseconds(clock_.Now()) + static_cast<std::int64_t>(id);
    bounded.Add(std::move(event));
  };
  for (std::uint32_t id = 1; id <= 4; ++id) add(id);
  EXPECT_FALSE(bounded.HasDue());
  const std::string warning = "FileEventCache: 4 file events rest: the oldest are delivered early";
  EXPECT_FALSE(log.Has(warning));
  for (std::uint32_t id = 5; id <= 7; ++id) {
    add(id);
    EXPECT_EQ(Ids(bounded.Expire()), IdList{id - 4});
  }
  EXPECT_EQ(bounded.GetSize(), 4U);
  EXPECT_EQ(log.Count(warning), 1) << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, warning));

  // The next time is told again once half of it was free.
  for (std::int32_t pid = 4; pid <= 5; ++pid) EXPECT_EQ(bounded.Flush(pid).size(), 1U);
  for (std::uint32_t id = 8; id <= 10; ++id) add(id);
  EXPECT_EQ(Ids(bounded.Expire()), IdList{6});
  EXPECT_EQ(log.Count(warning), 2);
}

TEST_F(FileEventCacheTest, LargeEventsReachTheBoundInAllEarlierAndLeaveIt) {
  const fakes::LogCapture log;
  FileEventCache cache(clock_, {.max_events = 100});
  const auto add = [&](std::uint32_t id, std::int32_t pid) {
    // Ten times as large as an ordinary one.
    auto event = std::make_unique<fakes::FakeEvent>(edr::EventType::Write, "Write", "/" + std::string(5'049, 'x'));
    event->id = id;
    event->pid = pid;
    event->timestamp = common::util::ToNanoseconds(clock_.Now());
    cache.Add(std::move(event));
  };
  for (std::uint32_t id = 1; id <= 10; ++id) add(id, static_cast<std::int32_t>(id));
  EXPECT_FALSE(cache.HasDue());
  add(11, 11);
  EXPECT_EQ(Ids(cache.Expire()), IdList{1});
  EXPECT_TRUE(log.Has("FileEventCache: 11 file events rest: the oldest are delivered early"));
  // However they leave, they leave their room.
  for (const std::int32_t pid : {2, 3, 4, 5}) EXPECT_EQ(cache.Flush(pid).size(), 1U);
  cache.Clear();
  for (std::uint32_t id = 12; id <= 21; ++id) add(id, static_cast<std::int32_t>(id));
  EXPECT_FALSE(cache.HasDue());
}

TEST_F(FileEventCacheTest, AnEventFromTheFutureIsDueBecauseTheClockWasSetBack) {
  Add(1, 100);
  Add(2, 200);
  clock_.SetWall(-std::chrono::hours(1));
  Add(3, 100);
  EXPECT_EQ(Ids(cache_.Expire()), (IdList{1, 2}));
  EXPECT_EQ(cache_.GetSize(), 1U);
  clock_.Advance(seconds(31));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{3});
}

TEST_F(FileEventCacheTest, ALittleAheadOfTheClockIsNotTheFuture) {
  Add(1, 100, seconds(-5));
  EXPECT_FALSE(cache_.HasDue());
  Add(2, 200, seconds(-6));
  EXPECT_EQ(Ids(cache_.Expire()), IdList{2});
}

TEST_F(FileEventCacheTest, HandsOutWhatIsNotDueWhenItIsAsked) {
  Add(1, 100, seconds(2));
  Add(2, 200, seconds(3));
  Add(3, 100, seconds(1));
  EXPECT_EQ(cache_.TakeOldest()->GetId(), 2U);
  EXPECT_EQ(cache_.TakeOldest()->GetId(), 1U);
  EXPECT_EQ(cache_.GetSize(), 1U);
  cache_.Clear();
  EXPECT_EQ(cache_.GetSize(), 0U);
  clock_.Advance(seconds(60));
  EXPECT_FALSE(cache_.HasDue());
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
