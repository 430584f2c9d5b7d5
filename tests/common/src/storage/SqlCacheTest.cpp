#include "common/src/storage/SqlCache.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fakes/LogCapture.h"

namespace zagent::common::internal {
namespace {

using Poco::Message;

constexpr std::size_t kRoomForTwo = 2 * (SqlCache::kEntryBytes + 1 + 100);

class SqlCacheTest : public ::testing::Test {
 protected:
  static Bytes Row(unsigned char byte, std::size_t size = 100) { return Bytes(size, byte); }
  bool Has(const std::string& key) { return cache_.Find("File", key).has_value(); }

  const fakes::LogCapture log_;
  SqlCache cache_{kRoomForTwo};
};

TEST_F(SqlCacheTest, TellsRowsByTableAndKey) {
  cache_.StoreWritten("File", "a", Row(1));
  EXPECT_EQ(cache_.Find("File", "a"), Row(1));
  EXPECT_FALSE(cache_.Find("Directory", "a"));
  EXPECT_FALSE(cache_.Find("File", "b"));
}

TEST_F(SqlCacheTest, CountsWhatItWasAskedAndGiven) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreRead("File", "b", Row(2));
  cache_.CountNotFound();
  (void)Has("a");
  (void)Has("b");
  (void)Has("c");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage Cache: hits: 2, misses: 1, writes: 1, not founds: 1"))
      << log_.All();
  // A change that is queued counts as a write, too, if it is one.
  const Bytes row = Row(4);
  cache_.BeginChange("File", "d", &row);
  cache_.BeginChange("File", "e", nullptr);
  EXPECT_TRUE(Has("d"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage Cache: hits: 3, misses: 1, writes: 2, not founds: 1"))
      << log_.All();
}

TEST_F(SqlCacheTest, AskingWhetherARowIsThereIsAskingForIt) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreWritten("File", "b", Row(2));
  EXPECT_TRUE(cache_.Has("File", "a"));
  EXPECT_FALSE(cache_.Has("Directory", "a"));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage Cache: hits: 1, misses: 1, writes: 2, not founds: 0"))
      << log_.All();
  cache_.StoreWritten("File", "c", Row(3));
  EXPECT_TRUE(cache_.Has("File", "a"));
  EXPECT_FALSE(cache_.Has("File", "b")) << "it was not asked for longest";
}

TEST_F(SqlCacheTest, TellsEachChangeWithTheSumOfTheRows) {
  SqlCache cache;
  cache.StoreWritten("File", "a", Row(1, 3000));
  cache.StoreWritten("File", "b", Row(2, 100));
  cache.StoreWritten("File", "a", Row(1, 1000));
  cache.Erase("File", "b");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "SqlStorage Cache: Adding 3000 bytes to table File. #Rows = 1. Total cached data size = 2 KB"))
      << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "SqlStorage Cache: Adding 100 bytes to table File. #Rows = 2. Total cached data size = 3 KB"))
      << log_.All();
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "SqlStorage Cache: Updating 1000 bytes in table File. #Rows = 2. Total cached data size = 1 KB"))
      << log_.All();
  EXPECT_TRUE(
      log_.Has(Message::PRIO_DEBUG,
               "SqlStorage Cache: Deleting 100 bytes from table File. #Rows = 1. Total cached data size = 0 KB"))
      << log_.All();
}

TEST_F(SqlCacheTest, TheSumOfTheRowsBeginsAnewAfterAClear) {
  SqlCache cache;
  cache.StoreWritten("File", "a", Row(1, 3000));
  cache.Clear();
  cache.StoreWritten("File", "b", Row(2, 1024));
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG,
                       "SqlStorage Cache: Adding 1024 bytes to table File. #Rows = 1. Total cached data size = 1 KB"))
      << log_.All();
}

TEST_F(SqlCacheTest, AtTheBoundTheRowThatWasNotAskedForLongestGoes) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreWritten("File", "b", Row(2));
  EXPECT_TRUE(Has("a"));
  cache_.StoreWritten("File", "c", Row(3));
  EXPECT_TRUE(Has("a"));
  EXPECT_FALSE(Has("b"));
  EXPECT_TRUE(Has("c"));
}

TEST_F(SqlCacheTest, ARowThatIsWrittenAgainWasAskedForLast) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreWritten("File", "b", Row(2));
  cache_.StoreWritten("File", "a", Row(3));
  cache_.StoreWritten("File", "c", Row(4));
  EXPECT_TRUE(Has("a"));
  EXPECT_FALSE(Has("b"));
  EXPECT_TRUE(Has("c"));
}

TEST_F(SqlCacheTest, ARowBeyondTheBoundIsNotKeptAndNeitherIsItsElder) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreWritten("File", "b", Row(2));
  cache_.StoreWritten("File", "a", Row(3, kRoomForTwo));
  EXPECT_FALSE(Has("a"));
  EXPECT_TRUE(Has("b"));
}

TEST_F(SqlCacheTest, WhatIsReadWhileAChangeWaitsIsOlderThanTheChange) {
  const Bytes fresh = Row(2);
  cache_.BeginChange("File", "a", &fresh);
  cache_.StoreRead("File", "a", Row(1));
  cache_.StoreWritten("File", "a", Row(1));
  EXPECT_EQ(cache_.Find("File", "a"), fresh);
  cache_.EndChange("File", "a", true);
  cache_.StoreRead("File", "a", Row(3));
  EXPECT_EQ(cache_.Find("File", "a"), Row(3));
}

TEST_F(SqlCacheTest, ADeleteThatWaitsKeepsTheOldRowOut) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.BeginChange("File", "a", nullptr);
  EXPECT_FALSE(Has("a"));
  cache_.StoreRead("File", "a", Row(1));
  EXPECT_FALSE(Has("a"));
}

TEST_F(SqlCacheTest, EachOfSeveralChangesOfAKeyIsWaitedFor) {
  const Bytes second = Row(2);
  cache_.BeginChange("File", "a", nullptr);
  cache_.BeginChange("File", "a", &second);
  cache_.EndChange("File", "a", true);
  cache_.StoreRead("File", "a", Row(1));
  EXPECT_EQ(cache_.Find("File", "a"), second);
}

TEST_F(SqlCacheTest, AFailedChangeLeavesNoRowThatTheDatabaseDoesNotHave) {
  const Bytes fresh = Row(2);
  cache_.BeginChange("File", "a", &fresh);
  cache_.EndChange("File", "a", false);
  EXPECT_FALSE(Has("a"));
}

TEST_F(SqlCacheTest, ClearForgetsOneTableOrAll) {
  cache_.StoreWritten("File", "a", Row(1));
  cache_.StoreWritten("Directory", "a", Row(2));
  cache_.Clear("File");
  cache_.Clear("Process");
  EXPECT_FALSE(Has("a"));
  EXPECT_TRUE(cache_.Find("Directory", "a"));
  cache_.Clear();
  EXPECT_FALSE(cache_.Find("Directory", "a"));
  // And its room is free again.
  cache_.StoreWritten("File", "b", Row(1));
  cache_.StoreWritten("File", "c", Row(2));
  EXPECT_TRUE(Has("b"));
  EXPECT_TRUE(Has("c"));
  // So is its memory of who was asked for last.
  cache_.StoreWritten("File", "d", Row(3));
  EXPECT_FALSE(Has("b"));
  EXPECT_TRUE(Has("c"));
  EXPECT_TRUE(Has("d"));
}

}  // namespace
}  // namespace zagent::common::internal
