#include "src/edr/LRUCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

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

TEST_F(LRUCacheTest, FindsNothingForAKeyThatIsNotThereAndTakesAHitForAQuestion) {
  EXPECT_EQ(cache_.Find("z"), nullptr);
  ASSERT_NE(cache_.Find("a"), nullptr);
  EXPECT_EQ(**cache_.Find("a"), "a");
  Put("d");
  EXPECT_EQ(cache_.Find("b"), nullptr);
  EXPECT_NE(cache_.Find("a"), nullptr);
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

// A list of keys and values, the latest asked for in front, and nothing else.
class Model {
 public:
  explicit Model(std::size_t capacity) : capacity_(capacity) {}

  [[nodiscard]] const std::vector<std::pair<std::string, int>>& Entries() const { return entries_; }
  void Put(const std::string& key, int value) {
    Erase(key);
    entries_.insert(entries_.begin(), {key, value});
    if (entries_.size() > capacity_) entries_.pop_back();
  }
  // -1 for a key that is not there.
  int Ask(const std::string& key) {
    const auto found = Find(key);
    if (found == entries_.end()) return -1;
    const int value = found->second;
    Put(key, value);
    return value;
  }
  void Erase(const std::string& key) {
    const auto found = Find(key);
    if (found != entries_.end()) entries_.erase(found);
  }
  void Clear() { entries_.clear(); }

 private:
  std::vector<std::pair<std::string, int>>::iterator Find(const std::string& key) {
    return std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) { return entry.first == key; });
  }

  const std::size_t capacity_;
  std::vector<std::pair<std::string, int>> entries_;
};

class LRUCachePropertyTest : public testing::TestWithParam<std::size_t> {
 protected:
  static unsigned Seed() {
    const char* const seed = std::getenv("OSTREL_PROPERTY_SEED");
    return seed != nullptr ? static_cast<unsigned>(std::strtoul(seed, nullptr, 10)) : std::random_device()();
  }
  int Roll(int sides) { return std::uniform_int_distribution<>(0, sides - 1)(random_); }
  // Twice as many as fit; too long for a text to hold them without memory of its own.
  std::string AnyKey() { return "a key of some length " + std::to_string(Roll(static_cast<int>(2 * GetParam()) + 2)); }

  int Ask(const std::string& key) {
    int* const value = cache_.Find(key);
    return value != nullptr ? *value : -1;
  }
  int Take(const std::string& key) {
    try {
      return cache_.Take(key);
    } catch (const LRUCacheException&) {
      return -1;
    }
  }
  void Step() {
    const std::string key = AnyKey();
    const int dice = Roll(100);
    if (dice < 45) {
      const int value = Roll(1'000);
      cache_.Put(key, value);
      model_.Put(key, value);
    } else if (dice < 85) {
      EXPECT_EQ(Ask(key), model_.Ask(key));
    } else if (dice < 92) {
      EXPECT_EQ(Take(key), model_.Ask(key));
      model_.Erase(key);
    } else if (dice < 99) {
      cache_.Erase(key);
      model_.Erase(key);
    } else {
      cache_.Clear();
      model_.Clear();
    }
  }

  const unsigned seed_ = Seed();
  std::mt19937 random_{seed_};
  LRUCache<std::string, int> cache_{GetParam()};
  Model model_{GetParam()};
};

TEST_P(LRUCachePropertyTest, BehavesLikeAListWhateverIsDoneToIt) {
  SCOPED_TRACE("OSTREL_PROPERTY_SEED=" + std::to_string(seed_));
  for (int step = 0; step < 20'000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    Step();
    ASSERT_EQ(cache_.GetSize(), model_.Entries().size());
    for (const auto& entry : model_.Entries()) ASSERT_TRUE(cache_.Contains(entry.first));
  }
}

INSTANTIATE_TEST_SUITE_P(Capacities, LRUCachePropertyTest, testing::Values(0U, 1U, 2U, 16U));

}  // namespace
}  // namespace zagent::edr
