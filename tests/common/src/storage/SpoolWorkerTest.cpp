#include "common/src/storage/SpoolWorker.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::internal {
namespace {

using fakes::FakeDataFormatter;
using fakes::FaultyFiles;
using fakes::ToBytes;
using fakes::ToText;
using Poco::Message;

constexpr std::uint64_t kKib = 1024;

// Fails in a way that nobody has foreseen.
class BrokenDataFormatter final : public DataFormatter {
 public:
  void Append(const Bytes& data) override { size_ += data.size(); }
  Bytes Finish() override { throw std::runtime_error("out of everything"); }
  [[nodiscard]] std::size_t Size() const override { return size_; }
  void Clear() override { size_ = 0; }

 private:
  std::size_t size_ = 0;
};

// A spool of files of at most 1 KiB, without a thread.
class SpoolWorkerTest : public ::testing::Test {
 protected:
  SpoolWorkerTest() {
    limits_.Apply(1, 60, 1);
    disk_.fault = [this](FaultyFiles::Call call, const std::string&) {
      if (call == FaultyFiles::Call::Open) ++opened_;
      if (call == FaultyFiles::Call::Write && disk_full_) return ENOSPC;
      return call == FaultyFiles::Call::Read && unreadable_ ? EACCES : 0;
    };
  }

  std::unique_ptr<StorageResult> Add(const std::string& text) { return worker_.Add(ToBytes(text)); }

  // The texts of all files.
  [[nodiscard]] std::string Files() const {
    std::string all;
    for (int index = 1; index < 10; ++index) {
      const std::string name = "events.000" + std::to_string(index);
      if (!std::filesystem::exists(folder_ / name)) continue;
      const std::string text = folder_.Read(name);
      all += (all.empty() ? "" : " ") + (text.empty() ? "<empty>" : text);
    }
    return all;
  }

  const fakes::TempFolder folder_;
  const fakes::LogCapture log_;
  FaultyFiles disk_;
  bool disk_full_ = false;
  bool unreadable_ = false;
  int opened_ = 0;
  fakes::FakeClock clock_;
  SpoolLimits limits_;
  std::vector<std::uint64_t> syncs_;                            // seconds asked for
  FakeDataFormatter* const formatter_ = new FakeDataFormatter;  // NOLINT: the worker's
  SpoolWorker worker_{std::unique_ptr<DataFormatter>(formatter_),
                      SpoolDirectory(folder_.Path(), "events", 9),
                      limits_,
                      [this](std::uint64_t seconds) { syncs_.push_back(seconds); },
                      disk_,
                      clock_};
};

TEST_F(SpoolWorkerTest, TheFormatterHearsOfItsPayloadOnceThatIsAFile) {
  std::vector<std::string> stored;
  formatter_->on_stored = [&] { stored.push_back(Files()); };
  Add("a");
  EXPECT_EQ(stored, std::vector<std::string>{});
  disk_full_ = true;
  worker_.Sync();
  EXPECT_EQ(stored, std::vector<std::string>{});
  disk_full_ = false;
  worker_.Sync();
  EXPECT_EQ(stored, std::vector<std::string>{"a"});
  Add("b");
  worker_.Sync();
  EXPECT_EQ(stored, (std::vector<std::string>{"a", "a b"}));
}

TEST_F(SpoolWorkerTest, AnItemThatFitsOnlyGoesIntoTheCache) {
  const auto result = Add("item");
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_TRUE(result->data.empty());
  EXPECT_FALSE(result->stat_info);
  EXPECT_EQ(result->path, "");
  EXPECT_TRUE(result->has_free_space);
  EXPECT_EQ(Files(), "");
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "]: SpoolStorage: Added 4 bytes to cache. Current Cache size: 0"))
      << log_.All();
}

TEST_F(SpoolWorkerTest, TellsWhenAllThatItHeldIsInFiles) {
  std::vector<std::string> filed;  // the files at each call
  worker_.SetFiledCallback([&] { filed.push_back(Files()); });
  Add("one");
  EXPECT_TRUE(filed.empty());
  worker_.Sync();
  worker_.Sync();
  EXPECT_EQ(filed.size(), 1U) << "nothing was held the second time";
  Add(std::string(1'000, 'x'));
  Add(std::string(1'000, 'y'));  // the first becomes a file, the second is held
  ASSERT_EQ(filed.size(), 2U);
  EXPECT_NE(filed[1].find("xxx"), std::string::npos);
  EXPECT_EQ(filed[1].find("yyy"), std::string::npos);
}

TEST_F(SpoolWorkerTest, TellsNothingWhileAnythingThatItHeldIsInMemory) {
  int filed = 0;
  worker_.SetFiledCallback([&] { ++filed; });
  disk_full_ = true;
  Add(std::string(1'000, 'x'));
  Add(std::string(1'000, 'y'));  // the first waits for the disk
  worker_.Sync();
  EXPECT_EQ(filed, 0);
  disk_full_ = false;
  worker_.Sync();  // two files
  EXPECT_EQ(filed, 1);
}

TEST_F(SpoolWorkerTest, TellsWhenAnythingThatItHeldIsThrownAway) {
  std::string told;
  worker_.SetFiledCallback([&] { told += "filed "; });
  worker_.SetDroppedCallback([&] { told += "dropped "; });
  Add("one");
  worker_.Clear();
  EXPECT_EQ(told, "dropped ");
  worker_.Clear();
  EXPECT_EQ(told, "dropped ") << "there was nothing left";
  Add(FakeDataFormatter::kUnserialisable);
  worker_.Sync();
  EXPECT_EQ(told, "dropped dropped ");
  disk_full_ = true;
  Add("waiting");
  worker_.Sync();
  worker_.Clear();
  EXPECT_EQ(told, "dropped dropped dropped ") << "a payload that waits for the disk is lost as well";
  disk_full_ = false;
  Add("two");
  worker_.Sync();
  EXPECT_EQ(told, "dropped dropped dropped filed ");
  worker_.Clear();
  EXPECT_EQ(told, "dropped dropped dropped filed ") << "what is in files was told of already";
}

TEST_F(SpoolWorkerTest, TellsThatItsFilesAreClearedWhileTheyAreStillThere) {
  std::vector<std::string> told;
  worker_.SetClearingCallback([&] { told.push_back(Files()); });
  Add("one");
  worker_.Clear();
  EXPECT_TRUE(told.empty()) << "there was no file";
  Add("two");
  worker_.Sync();
  EXPECT_TRUE(worker_.Clear());
  EXPECT_EQ(told, std::vector<std::string>{"two"});
  EXPECT_EQ(Files(), "");
  worker_.Clear();
  EXPECT_EQ(told.size(), 1U);
}

TEST_F(SpoolWorkerTest, WhatIsDroppedIsToldBeforeTheNextItemIsTaken) {
  std::uint64_t held = 1;
  worker_.SetDroppedCallback([&] { held = 0; });
  Add(FakeDataFormatter::kUnserialisable);
  const auto result = Add(std::string(kKib, 'x'));
  EXPECT_EQ(held, 0U);
  EXPECT_TRUE(result->data.empty()) << "this one is in the cache";
}

TEST_F(SpoolWorkerTest, TheFirstItemOfACacheSetsTheSyncAndLaterOnesDoNotPushItBack) {
  Add("one");
  Add("two");
  EXPECT_EQ(syncs_, (std::vector<std::uint64_t>{60}));
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "SpoolStorage: Scheduled cache sync after 60 seconds.")) << log_.All();
  worker_.Sync();
  EXPECT_EQ(syncs_.size(), 1U);
  Add("three");
  EXPECT_EQ(syncs_.size(), 2U);
}

TEST_F(SpoolWorkerTest, ACacheOfExactlyTheLargestFileStaysACache) {
  Add(std::string(kKib - 1, 'x'));
  Add("y");
  EXPECT_EQ(Files(), "");
  const auto result = Add("z");
  EXPECT_EQ(Files(), std::string(kKib - 1, 'x') + "y");
  EXPECT_EQ(result->code, StorageCode::Success);
  EXPECT_EQ(result->path, folder_ / "events.0001");
  EXPECT_TRUE(result->stat_info);
  EXPECT_TRUE(result->has_free_space);
  EXPECT_EQ(syncs_.size(), 2U) << "the new cache has a sync of its own";
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Flushed cache to disk: " + (folder_ / "events.0001")))
      << log_.All();
  worker_.Sync();
  EXPECT_EQ(Files(), std::string(kKib - 1, 'x') + "y z");
}

TEST_F(SpoolWorkerTest, AnItemLargerThanAShrunkenLimitMakesNoEmptyFile) {
  Add(std::string(3 * kKib, 'x'));  // queued before the limit went down
  EXPECT_EQ(Files(), "");
  worker_.Sync();
  EXPECT_EQ(Files(), std::string(3 * kKib, 'x'));
}

TEST_F(SpoolWorkerTest, KnowsWhatItHoldsInMemory) {
  EXPECT_EQ(worker_.GetHeldBytes(), 0U);
  Add(std::string(kKib, 'x'));
  EXPECT_EQ(worker_.GetHeldBytes(), kKib);
  Add("abc");  // makes a file of the cache
  EXPECT_EQ(worker_.GetHeldBytes(), 3U);
  disk_full_ = true;
  Add(std::string(kKib, 'y'));
  EXPECT_EQ(worker_.GetHeldBytes(), kKib + 3) << "what waits for the disk, too";
  disk_full_ = false;
  worker_.Sync();
  EXPECT_EQ(worker_.GetHeldBytes(), 0U);
  Add("abc");
  worker_.Clear();
  EXPECT_EQ(worker_.GetHeldBytes(), 0U);
}

TEST_F(SpoolWorkerTest, ASyncWithoutDataWritesNothing) {
  worker_.Sync();
  EXPECT_EQ(Files(), "");
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "SpoolStorage: Skipping syncing of cache since there is no data."))
      << log_.All();
}

TEST_F(SpoolWorkerTest, AFlushThatFailsKeepsItsPayloadForTheNext) {
  disk_full_ = true;
  Add("one ");
  worker_.Sync();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to sync cache.")) << log_.All();
  EXPECT_EQ(syncs_, (std::vector<std::uint64_t>{60, 60})) << "nobody would come back before tomorrow";
  disk_full_ = false;
  Add("two");
  worker_.Sync();
  EXPECT_EQ(Files(), "one  two") << "the older payload goes first";
  worker_.Sync();
  EXPECT_EQ(Files(), "one  two");
}

TEST_F(SpoolWorkerTest, APayloadThatWaitsIsWrittenWithoutNewData) {
  disk_full_ = true;
  Add("one");
  worker_.Sync();
  disk_full_ = false;
  worker_.Sync();
  EXPECT_EQ(Files(), "one");
}

TEST_F(SpoolWorkerTest, WhileTheDiskRefusesOnlyOnePayloadAndOneCacheAreHeld) {
  disk_full_ = true;
  const std::string full(kKib, 'a');
  EXPECT_EQ(Add(full)->code, StorageCode::Success);
  // The first payload waits for the disk, this item is in the cache.
  EXPECT_EQ(Add(std::string(kKib, 'b'))->code, StorageCode::Unknown);
  // Now there is no room, and the item comes back.
  const auto refused = Add("c");
  EXPECT_EQ(refused->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(refused->data), "c");
  disk_full_ = false;
  worker_.Sync();
  EXPECT_EQ(Files(), full + " " + std::string(kKib, 'b'));
}

TEST_F(SpoolWorkerTest, AFullDiskIsAskedOnceASecondHoweverManyItemsCome) {
  disk_full_ = true;
  Add(std::string(kKib, 'a'));
  Add(std::string(kKib, 'b'));  // the first waits for the disk, the second fills the cache
  const int opened = opened_;
  for (int i = 0; i < 1000; ++i) {
    const auto refused = Add("c");
    EXPECT_EQ(refused->code, StorageCode::Unknown) << "the code of the write that failed";
    EXPECT_EQ(ToText(refused->data), "c");
  }
  EXPECT_EQ(opened_, opened);
  EXPECT_EQ(log_.Count("Storage: Failed to write to "), 1);
  clock_.Advance(std::chrono::milliseconds(999));
  Add("d");
  EXPECT_EQ(opened_, opened);
  clock_.Advance(std::chrono::milliseconds(1));
  Add("d");
  EXPECT_EQ(opened_, opened + 1);
  Add("d");
  EXPECT_EQ(opened_, opened + 1) << "and a second from there";
  disk_full_ = false;
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_EQ(Add("e")->code, StorageCode::Success);
  worker_.Sync();
  EXPECT_EQ(Files(), std::string(kKib, 'a') + " " + std::string(kKib, 'b') + " e");
}

TEST_F(SpoolWorkerTest, ASyncAsksTheDiskRightAfterAFailureToo) {
  disk_full_ = true;
  Add(std::string(kKib, 'a'));
  Add(std::string(kKib, 'b'));
  disk_full_ = false;
  EXPECT_EQ(Add("c")->code, StorageCode::Unknown);
  worker_.Sync();
  EXPECT_EQ(Files(), std::string(kKib, 'a') + " " + std::string(kKib, 'b'));
  EXPECT_EQ(Add("d")->code, StorageCode::Success);
}

TEST_F(SpoolWorkerTest, AfterAClearNothingIsLeftOfAFailure) {
  disk_full_ = true;
  Add(std::string(kKib, 'a'));
  Add(std::string(kKib, 'b'));
  disk_full_ = false;
  worker_.Clear();
  Add(std::string(kKib, 'c'));
  EXPECT_EQ(Add("d")->code, StorageCode::Success);
  EXPECT_EQ(Files(), std::string(kKib, 'c'));
}

TEST_F(SpoolWorkerTest, ASpoolWithoutAnyNameIsAskedOnceASecondToo) {
  for (int index = 1; index < 10; ++index) {
    std::filesystem::create_directory(folder_ / ("events.000" + std::to_string(index)));
  }
  Add(std::string(kKib, 'a'));
  EXPECT_THROW(Add("b"), StorageException);
  Add(std::string(kKib, 'b'));
  const int opened = opened_;
  EXPECT_EQ(Add("c")->code, StorageCode::Unknown);
  EXPECT_EQ(opened_, opened);
  clock_.Advance(std::chrono::seconds(1));
  EXPECT_THROW(Add("c"), StorageException);
}

TEST_F(SpoolWorkerTest, ASyncThatFailsUnforeseenIsTriedAgainToo) {
  SpoolWorker worker(std::make_unique<BrokenDataFormatter>(), SpoolDirectory(folder_.Path(), "events", 9), limits_,
                     [this](std::uint64_t seconds) { syncs_.push_back(seconds); });
  worker.Add(ToBytes("item"));
  worker.Sync();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to sync cache. out of everything")) << log_.All();
  EXPECT_EQ(syncs_, (std::vector<std::uint64_t>{60, 60})) << "nobody would come back before tomorrow";
}

TEST_F(SpoolWorkerTest, WithoutAnyNameThePayloadIsKeptToo) {
  Add("payload");
  for (int index = 1; index < 10; ++index) {
    std::filesystem::create_directory(folder_ / ("events.000" + std::to_string(index)));
  }
  worker_.Sync();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "SpoolStorage: Failed to sync cache. SpoolStorage::Cleanup: Failed to clean up spool files"))
      << log_.All();
  std::filesystem::remove(folder_ / "events.0004");
  worker_.Sync();
  EXPECT_EQ(folder_.Read("events.0004"), "payload");
}

TEST_F(SpoolWorkerTest, ABatchThatCannotBeSerialisedIsLostAlone) {
  Add(FakeDataFormatter::kUnserialisable);
  const auto result = Add(std::string(kKib, 'x'));
  EXPECT_EQ(result->code, StorageCode::SerializationFailed);
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "SpoolStorage::FlushDataCache: Failed to serialize data cache. Resetting cache."))
      << log_.All();
  EXPECT_EQ(log_.Count("Flushed cache to disk"), 0);
  worker_.Sync();
  EXPECT_EQ(Files(), std::string(kKib, 'x'));
}

TEST_F(SpoolWorkerTest, AnItemThatTheFormatterRefusesLeavesTheCacheAsItWas) {
  EXPECT_THROW(Add(FakeDataFormatter::kRefused), DataFormatterException);
  EXPECT_TRUE(syncs_.empty());
  Add("good");
  worker_.Sync();
  EXPECT_EQ(Files(), "good");
}

TEST_F(SpoolWorkerTest, ReadGivesTheFileOrACode) {
  EXPECT_EQ(worker_.Read()->code, StorageCode::NotFound);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
  Add("item");
  EXPECT_EQ(worker_.Read()->code, StorageCode::NotFound) << "the cache is not read";
  worker_.Sync();
  const auto read = worker_.Read();
  EXPECT_EQ(read->code, StorageCode::Success);
  EXPECT_EQ(ToText(read->data), "item");
  EXPECT_TRUE(read->has_free_space);
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "SpoolStorage: Read file: " + (folder_ / "events.0001")))
      << log_.All();
}

TEST_F(SpoolWorkerTest, AReadThatFailsIsACodeAndALine) {
  Add("item");
  worker_.Sync();
  unreadable_ = true;
  const auto read = worker_.Read();
  EXPECT_EQ(read->code, StorageCode::IOError);
  EXPECT_TRUE(read->data.empty());
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "]: SpoolStorage: Failed to read file: SpoolStorage::ReadOldestFile: Input/output error (5)"))
      << log_.All();
  unreadable_ = false;
  EXPECT_EQ(ToText(worker_.Read()->data), "item");
}

TEST_F(SpoolWorkerTest, ClearThrowsFilesCacheAndWaitingPayloadAway) {
  Add("file");
  worker_.Sync();
  disk_full_ = true;
  Add("waiting");
  worker_.Sync();
  Add("cache");
  disk_full_ = false;
  EXPECT_TRUE(worker_.Clear());
  worker_.Sync();
  EXPECT_EQ(Files(), "");
}

}  // namespace
}  // namespace zagent::common::internal
