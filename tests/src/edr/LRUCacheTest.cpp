#include "src/edr/LRUCache.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace zagent::edr {
namespace {

class LRUCacheTest : public testing::Test {
 protected:
  LRUCacheTest() {
    for (const char* key : {"a", "b", "c"}) cache_.Put(key, std::make_unique<std::string>(key));
  }
  void Put(const std::string& key) { cache_.Put(key, std::make_unique<std::string>(key)); }

  LRUCache<std::string, std::unique_ptr<std::string>> cache_{3};
};

TEST_F(LRUCacheTest, GivesTheOldestEntryUpForANewOne) {
  Put("d");
  EXPECT_EQ(cache_.GetSize(), 3U);
  EXPECT_FALSE(cache_.Contains("a"));
  EXPECT_EQ(*cache_.Get("d"), "d");
}

TEST_F(LRUCacheTest, KeepsWhatIsAskedFor) {
  EXPECT_EQ(*cache_.Get("a"), "a");
  Put("d");
  EXPECT_TRUE(cache_.Contains("a"));
  EXPECT_FALSE(cache_.Contains("b"));
}

TEST_F(LRUCacheTest, DoesNotTakeAContainsForAQuestion) {
  EXPECT_TRUE(cache_.Contains("a"));
  Put("d");
  EXPECT_FALSE(cache_.Contains("a"));
}

TEST_F(LRUCacheTest, AReplacedEntryIsTheNewestAndTakesNoSecondPlace) {
  cache_.Put("a", std::make_unique<std::string>("again"));
  EXPECT_EQ(cache_.GetSize(), 3U);
  Put("d");
  EXPECT_EQ(*cache_.Get("a"), "again");
  EXPECT_FALSE(cache_.Contains("b"));
}

TEST_F(LRUCacheTest, RefusesAKeyThatIsNotThere) {
  cache_.Erase("b");
  cache_.Erase("b");
  for (const char* key : {"b", "z"}) {
    try {
      (void)cache_.Get(key);
      ADD_FAILURE() << key;
    } catch (const LRUCacheException& error) {
      EXPECT_STREQ(error.what(), "Accessing key failed from cache memory");
    }
    EXPECT_THROW((void)cache_.Take(key), LRUCacheException);
  }
}

TEST_F(LRUCacheTest, TakesAnEntryOut) {
  EXPECT_EQ(*cache_.Take("b"), "b");
  EXPECT_FALSE(cache_.Contains("b"));
  EXPECT_EQ(cache_.GetSize(), 2U);
}

TEST_F(LRUCacheTest, IsUsableAfterItWasCleared) {
  cache_.Clear();
  EXPECT_EQ(cache_.GetSize(), 0U);
  Put("a");
  EXPECT_EQ(*cache_.Get("a"), "a");
}

TEST(LRUCacheWithoutRoomTest, HoldsNothing) {
  LRUCache<int, int> cache(0);
  cache.Put(1, 1);
  EXPECT_FALSE(cache.Contains(1));
}

}  // namespace
}  // namespace zagent::edr
