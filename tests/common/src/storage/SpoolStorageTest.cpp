#include "common/src/storage/SpoolStorage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/SleepingCall.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {
namespace {

using fakes::Eventually;
using fakes::FakeDataFormatter;
using fakes::Gate;
using fakes::kTestPatience;
using fakes::ToBytes;
using fakes::ToText;
using Poco::Message;
using std::chrono::seconds;

constexpr std::size_t kMib = 1024 * 1024;

// Stops one thread at the log line with which its task wakes the Scheduler.
class StopAtWakeUp final : public Poco::Channel {
 public:
  void log(const Poco::Message& message) override {
    if (std::this_thread::get_id() != thread) return;
    if (message.getText().find("Scheduler: Schedule updated.") == std::string::npos) return;
    stopped.Open();
    EXPECT_TRUE(go_on.Await());
  }

  std::atomic<std::thread::id> thread{};
  Gate stopped;
  Gate go_on;
};

class SpoolStorageTest : public ::testing::Test {
 protected:
  SpoolStorageTest() { scheduler_.Start(); }

  SpoolStorage& Open(const SpoolStorage::Limits& limits, std::uint64_t max_file_count = SpoolStorage::kMaxFileCount) {
    spool_.reset();
    spool_ = std::make_unique<SpoolStorage>(scheduler_, folder_.Path(), "events", std::make_unique<FakeDataFormatter>(),
                                            limits, max_file_count, clock_);
    return *spool_;
  }
  // Files of at most 1 KiB, 1 MiB on disk, a cache of at most a minute.
  SpoolStorage& Open() { return Open({1, 60, 1}); }

  // Fills the cache and makes a file of it.
  void WriteFileOf(const std::string& text) {
    spool_->Write(ToBytes(text));
    Sync();
  }
  // Lets the cache grow old.
  void Sync() {
    const std::size_t before = Names().size();
    ASSERT_TRUE(Eventually([&] { return clock_.EarliestDeadline() <= clock_.Now() + seconds(60); }));
    clock_.Advance(seconds(60));
    ASSERT_TRUE(Eventually([&] { return Names().size() == before + 1; }));
    Drain();
  }
  // Waits until every task so far is done.
  void Drain() { spool_->Read(); }

  // Blocks the spool's thread until the gate opens, which the two share.
  std::shared_ptr<Gate> Block() {
    const auto started = std::make_shared<Gate>();
    const auto release = std::make_shared<Gate>();
    spool_->ReadAsync([started, release](std::unique_ptr<StorageResult>) {
      started->Open();
      EXPECT_TRUE(release->Await());
    });
    EXPECT_TRUE(started->Await());
    return release;
  }

  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder_.Path())) {
      names.push_back(file.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const StorageException& error) {
      return error.what();
    }
    return "";
  }

  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  Scheduler scheduler_{clock_};
  std::unique_ptr<SpoolStorage> spool_;
};

TEST_F(SpoolStorageTest, SaysWhatIsWrongWithItsArguments) {
  const auto make = [&](const std::string& path, const std::string& prefix, std::uint64_t max_file_count,
                        bool formatter = true) {
    return ErrorOf([&] {
      const SpoolStorage spool(scheduler_, path, prefix, formatter ? std::make_unique<FakeDataFormatter>() : nullptr,
                               {}, max_file_count, clock_);
    });
  };
  const char* const kCount = "SpoolStorage: Max file count must be between 2 and 10000";
  EXPECT_EQ(make("", "", 1, false), kCount) << "the checks have an order";
  EXPECT_EQ(make(folder_.Path(), "events", 10'001), kCount);
  EXPECT_EQ(make("", "", 2, false), "SpoolStorage: Path cannot be empty");
  EXPECT_EQ(make(folder_.Path(), "", 2, false), "SpoolStorage: Prefix cannot be empty");
  EXPECT_EQ(make(folder_.Path(), "events", 2, false), "SpoolStorage: dataFormatter cannot be null");
  EXPECT_EQ(make(folder_ / "none", "events", 2), "SpoolStorage: Invalid Path: No such file or directory (2)");
  EXPECT_EQ(make(folder_.Write("file", ""), "events", 2), "SpoolStorage: Path is not a directory");
  EXPECT_EQ(make(folder_.Path(), "events", 2), "");
  EXPECT_EQ(make(folder_.Path(), "events", 10'000), "");
  fakes::FaultyFiles disk;
  disk.Fail(fakes::FaultyFiles::Call::Stat, EIO);
  EXPECT_EQ(ErrorOf([&] {
              const SpoolStorage spool(scheduler_, folder_.Path(), "events", std::make_unique<FakeDataFormatter>(), {},
                                       2, clock_, disk);
            }),
            "SpoolStorage: Invalid Path: Input/output error (5)");
}

TEST_F(SpoolStorageTest, CarriesAnItemFromTheWriterThroughAFileToTheReader) {
  SpoolStorage& spool = Open();
  EXPECT_EQ(spool.GetPath(), folder_.Path());
  const auto written = spool.Write(ToBytes("item"));
  EXPECT_EQ(written->code, StorageCode::Success);
  EXPECT_TRUE(written->has_free_space);
  EXPECT_EQ(spool.Read()->code, StorageCode::NotFound) << "still in the cache";
  Sync();
  EXPECT_EQ(Names(), (std::vector<std::string>{"events.0001"}));
  auto read = spool.Read();
  EXPECT_EQ(ToText(read->data), "item");
  EXPECT_EQ(read->path, folder_ / "events.0001");
  EXPECT_TRUE(spool.Delete(std::move(read)));
  EXPECT_TRUE(Names().empty());
  EXPECT_EQ(spool.Read()->code, StorageCode::NotFound);
  EXPECT_FALSE(log_.Has(Message::PRIO_ERROR, "")) << log_.All();
}

TEST_F(SpoolStorageTest, TheAsynchronousOperationsAnswerOnTheSpoolsThread) {
  SpoolStorage& spool = Open();
  std::vector<std::thread::id> threads;
  Gate done;
  spool.WriteAsync(ToBytes("item"), [&](std::unique_ptr<StorageResult> result) {
    EXPECT_EQ(result->code, StorageCode::Success);
    threads.push_back(std::this_thread::get_id());
  });
  spool.ReadAsync([&](std::unique_ptr<StorageResult> result) {
    EXPECT_EQ(result->code, StorageCode::NotFound);
    threads.push_back(std::this_thread::get_id());
  });
  spool.ClearAsync([&](bool cleared) {
    EXPECT_TRUE(cleared);
    threads.push_back(std::this_thread::get_id());
    done.Open();
  });
  ASSERT_TRUE(done.Await());
  ASSERT_EQ(threads.size(), 3U);
  for (const std::thread::id& thread : threads) {
    EXPECT_EQ(thread, threads.front());
    EXPECT_NE(thread, std::this_thread::get_id());
  }
  spool_.reset();
  EXPECT_TRUE(Names().empty()) << "the cache was cleared too";
}

TEST_F(SpoolStorageTest, TakesItemsUpToTheLargestFile) {
  SpoolStorage& spool = Open();
  EXPECT_EQ(spool.GetMaxFileSize(), 1024U);
  EXPECT_EQ(spool.Write(Bytes(1024))->code, StorageCode::Success);
  EXPECT_EQ(ErrorOf([&] { spool.Write(Bytes(1025)); }), "SpoolStorage::Write: data is larger than max file size");
  EXPECT_EQ(ErrorOf([&] { spool.WriteAsync(Bytes(1025), {}); }),
            "SpoolStorage::WriteAsync: data is larger than max file size");
  spool_.reset();  // the cache becomes a file
  SpoolStorage& empty = Open();
  Gate answered;
  empty.WriteAsync(Bytes(1024), [&](std::unique_ptr<StorageResult> result) {
    EXPECT_EQ(result->code, StorageCode::Success);
    EXPECT_EQ(result->path, "") << "it fits into the cache";
    EXPECT_TRUE(result->data.empty());
    answered.Open();
  });
  EXPECT_TRUE(answered.Await());
}

TEST_F(SpoolStorageTest, CannotAppend) {
  EXPECT_EQ(ErrorOf([&] { Open().Append({}, nullptr); }), "SpoolStorage::Write is not implemented");
}

TEST_F(SpoolStorageTest, DeleteOfNothingIsFalseAtOnce) {
  SpoolStorage& spool = Open();
  const auto release = Block();  // so that only an answer without the spool's thread can come
  int answers = 0;
  const auto count = [&](bool deleted) {
    EXPECT_FALSE(deleted);
    ++answers;
  };
  EXPECT_FALSE(spool.Delete(nullptr));
  EXPECT_FALSE(spool.Delete(std::make_unique<StorageResult>()));
  spool.DeleteAsync(nullptr, count);
  spool.DeleteAsync(std::make_unique<StorageResult>(), count);
  EXPECT_EQ(answers, 2);
  release->Open();
}

TEST_F(SpoolStorageTest, GoesOnWithTheFilesOfAnEarlierRun) {
  folder_.Write("events.0003", "three");
  folder_.Write("events.0007", "seven");
  SpoolStorage& spool = Open();
  EXPECT_EQ(ToText(spool.Read()->data), "three");
  WriteFileOf("eight");
  EXPECT_EQ(Names(), (std::vector<std::string>{"events.0003", "events.0007", "events.0008"}));
}

TEST_F(SpoolStorageTest, TwoFilesAreTheFewestAndLeaveOneName) {
  Open({1, 60, 1}, 2);
  WriteFileOf("old");
  spool_->Write(ToBytes("new"));
  spool_.reset();
  EXPECT_EQ(Names(), (std::vector<std::string>{"events.0001"}));
  EXPECT_EQ(folder_.Read("events.0001"), "new");
}

TEST_F(SpoolStorageTest, TheCacheIsFlushedAtTheEnd) {
  Open().Write(ToBytes("item"));
  EXPECT_TRUE(Names().empty());
  spool_.reset();
  EXPECT_EQ(folder_.Read("events.0001"), "item");
  EXPECT_TRUE(log_.Has(Message::PRIO_INFORMATION, "]: Destroying SpoolStorage for " + folder_.Path())) << log_.All();
}

TEST_F(SpoolStorageTest, TheLastFlushOntoAFullDiskIsTriedAndSaidAndLeavesNoPartOfAFile) {
  fakes::FaultyFiles disk;
  std::atomic<bool> full{false};
  std::atomic<int> tries{0};
  disk.fault = [&](fakes::FaultyFiles::Call call, const std::string&) {
    if (call != fakes::FaultyFiles::Call::Write || !full) return 0;
    ++tries;
    return ENOSPC;
  };
  spool_ = std::make_unique<SpoolStorage>(scheduler_, folder_.Path(), "events", std::make_unique<FakeDataFormatter>(),
                                          SpoolStorage::Limits{1, 60, 1}, SpoolStorage::kMaxFileCount, clock_, disk);
  int filed = 0;
  spool_->SetFiledCallback([&] { ++filed; });
  WriteFileOf("earlier");
  EXPECT_EQ(filed, 1);
  full = true;
  spool_->Write(Bytes(1024));
  EXPECT_EQ(spool_->Write(Bytes(1024))->code, StorageCode::Unknown);
  EXPECT_EQ(tries, 1);
  spool_.reset();
  EXPECT_EQ(tries, 2) << "right after a failure too";
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "]: SpoolStorage: Failed to sync cache.")) << log_.All();
  EXPECT_EQ(filed, 1) << "nothing more is safe";
  EXPECT_EQ(Names(), std::vector<std::string>{"events.0001"});
  EXPECT_EQ(folder_.Read("events.0001"), "earlier");
}

TEST_F(SpoolStorageTest, TasksThatNeverStartedRunBeforeTheLastFlush) {
  scheduler_.Stop();
  SpoolStorage& spool = Open();
  std::vector<StorageCode> codes;
  for (const char* item : {"one ", "two"}) {
    spool.WriteAsync(ToBytes(item), [&](std::unique_ptr<StorageResult> result) { codes.push_back(result->code); });
  }
  EXPECT_TRUE(codes.empty());
  spool_.reset();
  EXPECT_EQ(codes, (std::vector<StorageCode>{StorageCode::Success, StorageCode::Success}));
  EXPECT_EQ(folder_.Read("events.0001"), "one two");
}

TEST_F(SpoolStorageTest, ATaskOfTheLastTurnThatAsksForMoreIsRefused) {
  scheduler_.Stop();
  SpoolStorage& spool = Open();
  std::vector<StorageCode> codes;
  std::function<void(std::unique_ptr<StorageResult>)> again = [&](std::unique_ptr<StorageResult> result) {
    codes.push_back(result->code);
    if (codes.size() < 1000 && result->code != StorageCode::Unknown) spool.ReadAsync(again);
  };
  spool.ReadAsync(again);
  spool_.reset();
  EXPECT_EQ(codes, (std::vector<StorageCode>{StorageCode::NotFound, StorageCode::Unknown}));
}

TEST_F(SpoolStorageTest, EndsQuietlyWhenTheSchedulerHasLetGoOfIt) {
  Open().Write(ToBytes("item"));
  scheduler_.RemoveAllSchedules();
  spool_.reset();
  EXPECT_EQ(folder_.Read("events.0001"), "item");
}

TEST_F(SpoolStorageTest, EveryWriteIsAnsweredWhenTheFormatterFails) {
  SpoolStorage& spool = Open();
  const auto refused = spool.Write(ToBytes(FakeDataFormatter::kRefused));
  EXPECT_EQ(refused->code, StorageCode::SerializationFailed);
  EXPECT_EQ(ToText(refused->data), FakeDataFormatter::kRefused);
  Drain();  // the answer comes before the log line
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorageSchedule: FakeDataFormatter: refused")) << log_.All();
  spool.Write(ToBytes(FakeDataFormatter::kUnserialisable));
  EXPECT_EQ(spool.Write(Bytes(1024, 'x'))->code, StorageCode::SerializationFailed);
}

TEST_F(SpoolStorageTest, EveryWriteIsAnsweredWhenNoNameIsFree) {
  std::filesystem::create_directory(folder_ / "events.0001");
  SpoolStorage& spool = Open({1, 60, 1}, 2);
  EXPECT_EQ(spool.Write(Bytes(1024, 'x'))->code, StorageCode::Success);
  const auto failed = spool.Write(ToBytes("y"));
  EXPECT_EQ(failed->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(failed->data), "y");
  Drain();  // the answer may come before the log line
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "SpoolStorageSchedule: SpoolStorage::Cleanup: Failed to clean up spool files"))
      << log_.All();
  std::filesystem::remove(folder_ / "events.0001");
  spool_.reset();
  EXPECT_EQ(folder_.Read("events.0001"), std::string(1024, 'x')) << "the payload of the failed flush was lost";
}

TEST_F(SpoolStorageTest, ACallbackThatThrowsHarmsNobody) {
  SpoolStorage& spool = Open();
  std::atomic<int> calls{0};
  spool.WriteAsync(ToBytes("item"), [&](std::unique_ptr<StorageResult>) {
    ++calls;
    throw std::runtime_error("bad callback");
  });
  spool.WriteAsync(ToBytes("item"), nullptr);
  Drain();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorageSchedule: bad callback")) << log_.All();
}

TEST_F(SpoolStorageTest, ATaskThatFailsIsAnsweredOnTheSpoolsThreadWhileItsCallerIsStillPostingIt) {
  SpoolStorage& spool = Open();
  const std::string away = folder_.Path() + ".away";
  std::filesystem::rename(folder_.Path(), away);  // so that the task throws
  Poco::AutoPtr<StopAtWakeUp> stop(new StopAtWakeUp);
  Poco::Logger& logger = Poco::Logger::get("edr");
  const Poco::Channel::Ptr log = logger.getChannel();
  logger.setChannel(stop);
  std::atomic<bool> answered{false};
  std::thread caller([&] {
    stop->thread = std::this_thread::get_id();
    spool.ClearAsync([&](bool cleared) {
      EXPECT_FALSE(cleared);
      EXPECT_NE(std::this_thread::get_id(), stop->thread.load());
      answered = true;
    });
  });
  EXPECT_TRUE(stop->stopped.Await());
  Drain();
  EXPECT_TRUE(answered) << "the answer waits for the caller";
  stop->go_on.Open();
  caller.join();
  spool_.reset();
  logger.setChannel(log);
  std::filesystem::rename(away, folder_.Path());
}

TEST_F(SpoolStorageTest, ACallbackMayCallSynchronouslyWhileAnotherThreadWaits) {
  folder_.Write("events.0001", "oldest");
  SpoolStorage& spool = Open();
  Gate in_callback;
  Gate waiting;
  Gate done;
  spool.ReadAsync([&](std::unique_ptr<StorageResult> result) {
    in_callback.Open();
    EXPECT_TRUE(waiting.Await());
    EXPECT_EQ(spool.Write(ToBytes("item"))->code, StorageCode::Success);
    EXPECT_TRUE(spool.Delete(std::move(result)));
    EXPECT_EQ(spool.Read()->code, StorageCode::NotFound);
    done.Open();
  });
  ASSERT_TRUE(in_callback.Await());
  fakes::SleepingCall<StorageCode> read([&] { return spool.Read()->code; });
  ASSERT_TRUE(read.AwaitAsleep());
  waiting.Open();
  ASSERT_TRUE(done.Await()) << "the callback waits for its own thread";
  ASSERT_TRUE(read.AwaitEnd());
  EXPECT_EQ(read.Get(), StorageCode::NotFound);
}

TEST_F(SpoolStorageTest, ASynchronousCallFailsWhenNoSchedulerRuns) {
  SpoolStorage& spool = Open();
  scheduler_.Stop();
  auto write = std::async(std::launch::async, [&] { return spool.Write(ToBytes("item")); });
  ASSERT_EQ(write.wait_for(kTestPatience), std::future_status::ready);
  const auto result = write.get();
  EXPECT_EQ(result->code, StorageCode::Unknown);
  EXPECT_EQ(ToText(result->data), "item");
  EXPECT_EQ(spool.Read()->code, StorageCode::Unknown);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SpoolStorage::Write: nothing runs the tasks of " + folder_.Path()))
      << log_.All();
  spool_.reset();
  EXPECT_TRUE(Names().empty()) << "what was reported as failed was written after all";
}

TEST_F(SpoolStorageTest, ASynchronousCallThatWaitsEndsWithTheScheduler) {
  // The run is cancelled while the call waits behind a long task: that run still serves it.
  SpoolStorage& spool = Open();
  const auto release = Block();
  fakes::SleepingCall<StorageCode> read([&] { return spool.Read()->code; });
  ASSERT_TRUE(read.AwaitAsleep());
  fakes::SleepingCall<bool> stop([&] {
    scheduler_.Stop();
    return true;
  });
  ASSERT_TRUE(stop.AwaitAsleep()) << "it does not wait for the run";
  release->Open();
  ASSERT_TRUE(stop.AwaitEnd());
  ASSERT_TRUE(read.AwaitEnd());
  EXPECT_EQ(read.Get(), StorageCode::NotFound);
}

TEST_F(SpoolStorageTest, WhatWaitsIsBoundedByTheDiskLimit) {
  constexpr std::size_t kItem = kMib / 2 - 192;  // half of it, with its task
  SpoolStorage& spool = Open({1, 60, 512});
  const auto release = Block();
  std::atomic<int> stored{0};
  int refused = 0;
  const auto here = std::this_thread::get_id();
  const auto count = [&](std::unique_ptr<StorageResult> result) {
    if (result->code == StorageCode::Success) {
      ++stored;
      return;
    }
    EXPECT_EQ(std::this_thread::get_id(), here) << "a refusal is told at once";
    EXPECT_EQ(result->code, StorageCode::Unknown);
    EXPECT_EQ(result->data.size(), kItem);
    ++refused;
  };
  for (int i = 0; i < 5; ++i) spool.WriteAsync(Bytes(kItem, 'x'), count);
  EXPECT_EQ(refused, 3);
  EXPECT_EQ(stored, 0);
  bool cleared = true;
  spool.ClearAsync([&](bool done) { cleared = done; });
  EXPECT_FALSE(cleared);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage: Refused 1 operations: the task queue is full."))
      << log_.All();
  release->Open();
  Drain();
  EXPECT_EQ(stored, 2);
  spool.WriteAsync(Bytes(kItem, 'x'), count);
  Drain();
  EXPECT_EQ(stored, 3) << "there is room again";
}

TEST_F(SpoolStorageTest, AnItemThatKeepsMoreMemoryThanItFillsWaitsWithAllOfIt) {
  SpoolStorage& spool = Open();
  const auto release = Block();
  int refused = 0;
  for (int i = 0; i < 3; ++i) {
    Bytes item(1);
    item.reserve(kMib / 2 - 192);
    spool.WriteAsync(std::move(item), [&](std::unique_ptr<StorageResult> result) {
      if (result->code != StorageCode::Success) ++refused;
    });
  }
  EXPECT_EQ(refused, 1);
  release->Open();
  Drain();
}

TEST_F(SpoolStorageTest, ADeletionThatWaitsKeepsNoneOfTheData) {
  folder_.Write("events.0001", "item");
  SpoolStorage& spool = Open();
  auto read = spool.Read();
  const auto release = Block();
  const std::size_t before = fakes::HeapInUse();
  read->data = Bytes(kMib);
  Gate done;
  spool.DeleteAsync(std::move(read), [&](bool deleted) {
    EXPECT_TRUE(deleted);
    done.Open();
  });
  if (fakes::kKnowsItsHeap) {
    EXPECT_LT(fakes::HeapInUse(), before + kMib / 2);
  }
  release->Open();
  EXPECT_TRUE(done.Await());
}

TEST_F(SpoolStorageTest, SmallItemsWaitWithinTheBoundToo) {
  SpoolStorage& spool = Open();
  const auto release = Block();
  int stored = 0;
  int refused = 0;
  const auto count = [&](std::unique_ptr<StorageResult> result) {
    ++(result->code == StorageCode::Success ? stored : refused);
  };
  const std::size_t before = fakes::HeapInUse();
  int posted = 0;
  for (; refused == 0; ++posted) spool.WriteAsync(Bytes(1, 'x'), count);
  const std::size_t held = fakes::HeapInUse() - before;
  EXPECT_EQ(posted - 1, static_cast<int>(kMib / 193)) << "each costs its byte and its task";
  if (fakes::kKnowsItsHeap) {
    EXPECT_LE(held, kMib) << "a task costs more than it is said to";
    EXPECT_GE(held, kMib / 2) << "or much less";
  }
  release->Open();
  Drain();
  EXPECT_EQ(stored, posted - 1);
}

TEST_F(SpoolStorageTest, NewLimitsThatWaitAreOneTaskHoweverManyCome) {
  SpoolStorage& spool = Open();
  const auto release = Block();
  const std::size_t before = fakes::HeapInUse();
  for (std::uint64_t kib = 1; kib <= 1000; ++kib) spool.Update({1, 60, kib % 300 + 1});
  spool.Update({2, 0, 700});
  spool.Update({0, 30, 0});
  EXPECT_EQ(spool.GetMaxFileSize(), 1024U);
  if (fakes::kKnowsItsHeap) {
    EXPECT_LE(fakes::HeapInUse(), before + 64 * 1024);
  }
  release->Open();
  Drain();
  EXPECT_EQ(spool.GetMaxFileSize(), 700U * 1024);
  spool.Write(ToBytes("item"));
  EXPECT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(30); }));
}

TEST_F(SpoolStorageTest, ASynchronousCallGetsThroughAFullQueue) {
  SpoolStorage& spool = Open({1, 60, 512});
  const auto release = Block();
  for (int i = 0; i < 5; ++i) spool.WriteAsync(Bytes(kMib / 2 - 192, 'x'), {});
  fakes::SleepingCall<StorageCode> read([&] { return spool.Read()->code; });
  ASSERT_TRUE(read.AwaitAsleep());
  release->Open();
  ASSERT_TRUE(read.AwaitEnd());
  EXPECT_EQ(read.Get(), StorageCode::Success);
}

TEST_F(SpoolStorageTest, UpdateChangesTheLimitsInTheirTurn) {
  SpoolStorage& spool = Open();
  const auto release = Block();
  spool.Update({2, 30, 700});
  EXPECT_EQ(spool.GetMaxFileSize(), 1024U);
  release->Open();
  Drain();
  EXPECT_EQ(spool.GetMaxFileSize(), 700U * 1024);
  spool.Write(ToBytes("item"));
  EXPECT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(30); }));
}

TEST_F(SpoolStorageTest, UpdateWithZeroesChangesNothingAndWarnsThreeTimes) {
  constexpr std::size_t kFile = 400 * 1024;
  SpoolStorage& spool = Open({1, 60, 400});
  spool.Update({0, 0, 0});
  Drain();
  EXPECT_EQ(spool.GetMaxFileSize(), kFile);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage::Update: Ignoring invalid max disk size setting"));
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage::Update: Ignoring invalid max file age setting"));
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage::Update: Ignoring invalid max file size setting"));
  EXPECT_EQ(log_.Count("Ignoring invalid"), 3);
  spool.Write(ToBytes("item"));
  EXPECT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  spool.Write(Bytes(kFile));
  EXPECT_TRUE(Eventually([&] { return clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
  spool.Write(Bytes(kFile));
  EXPECT_TRUE(spool.HasFreeSpace()) << "a file of 400 KiB leaves room for another";
  spool.Write(Bytes(kFile));
  EXPECT_FALSE(spool.HasFreeSpace()) << "a third one is more than 1 MiB";
}

TEST_F(SpoolStorageTest, TellsWhenOneMoreFileWouldNotFit) {
  SpoolStorage& spool = Open({1, 60, 512});
  EXPECT_TRUE(spool.HasFreeSpace());
  WriteFileOf(std::string(kMib / 2, 'x'));
  EXPECT_FALSE(spool.HasFreeSpace());
  EXPECT_FALSE(spool.Read()->has_free_space);
  EXPECT_TRUE(spool.Delete(spool.Read()));
  EXPECT_TRUE(spool.HasFreeSpace());
}

TEST_F(SpoolStorageTest, AFileSizeThatWouldFillTheDiskLimitIsHalved) {
  EXPECT_EQ(Open({1, 60, 5000}).GetMaxFileSize(), kMib / 2);
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "SpoolStorage: Max file size 5120000 does not fit max disk size 1048576"))
      << log_.All();
}

TEST_F(SpoolStorageTest, WhatWaitsIsNeverMoreThan64MiBHoweverLargeTheDiskLimit) {
  SpoolStorage& spool = Open({1000, 60, 16 * 1024});
  const auto release = Block();
  std::atomic<int> refused{0};
  const auto count = [&](std::unique_ptr<StorageResult> result) {
    if (result->code != StorageCode::Success) ++refused;
  };
  for (int i = 0; i < 4; ++i) spool.WriteAsync(Bytes(16 * kMib - 192), count);
  EXPECT_EQ(refused, 0);
  spool.WriteAsync(Bytes(1), count);
  EXPECT_EQ(refused, 1);
  release->Open();
}

TEST_F(SpoolStorageTest, AFolderThatOthersCanChangeIsOneWarning) {
  Open();
  EXPECT_FALSE(log_.Has(Message::PRIO_WARNING, "")) << log_.All();
  std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0777));
  Open();
  EXPECT_TRUE(log_.Has(Message::PRIO_WARNING, "]: SpoolStorage: Others can change what is in " + folder_.Path() +
                                                  " (mode 777, user " + std::to_string(geteuid()) +
                                                  "). It should have mode 0700 and user " + std::to_string(geteuid())))
      << log_.All();
  EXPECT_EQ(log_.Count("Others can change"), 1);
  // Its group, or the rest of the world, is enough.
  for (const unsigned mode : {0720U, 0702U}) {
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(mode));
    Open();
  }
  EXPECT_EQ(log_.Count("(mode 720, "), 1);
  EXPECT_EQ(log_.Count("(mode 702, "), 1);
}

TEST_F(SpoolStorageTest, AFolderOfSomebodyElseIsOneWarning) {
  // Only root can give its folder away; for everybody else the root folder is somebody else's.
  const std::string path = chown(folder_.Path().c_str(), 12345, 0) == 0 ? folder_.Path() : "/";
  const SpoolStorage spool(scheduler_, path, "events", std::make_unique<FakeDataFormatter>(), {1, 60, 1}, 2, clock_);
  EXPECT_EQ(log_.Count("SpoolStorage: Others can change what is in " + path), 1) << log_.All();
}

TEST_F(SpoolStorageTest, AClockThatIsSteppedByADayDoesNotKeepTheCacheFromTheDisk) {
  constexpr seconds kDay{86'400};
  SpoolStorage& spool = Open();
  for (const seconds step : {-kDay, kDay}) {
    // One item before the step, one after it that the Scheduler has not been told of yet. An item that need not wait
    // comes at once instead: before the step forward is told, after the step back is.
    spool.Write(ToBytes("item"));
    const std::size_t files = Names().size();
    clock_.Advance(step);
    scheduler_.OnClockStep(step);
    ASSERT_TRUE(Eventually(
        [&] { return Names().size() == files + 1 || clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
    clock_.Advance(seconds(60));
    EXPECT_TRUE(Eventually([&] { return Names().size() == files + 1; }));
    Drain();
    clock_.Advance(step);
    spool.Write(ToBytes("item"));
    scheduler_.OnClockStep(step);
    ASSERT_TRUE(Eventually(
        [&] { return Names().size() == files + 2 || clock_.EarliestDeadline() == clock_.Now() + seconds(60); }));
    clock_.Advance(seconds(60));
    EXPECT_TRUE(Eventually([&] { return Names().size() == files + 2; }));
    Drain();
  }
}

TEST_F(SpoolStorageTest, AFifoInPlaceOfAFileBlocksNobody) {
  ASSERT_EQ(mkfifo((folder_ / "events.0001").c_str(), 0600), 0);
  folder_.Write("events.0002", "item");
  SpoolStorage& spool = Open();
  EXPECT_EQ(ToText(spool.Read()->data), "item");
}

TEST(SpoolStorageStormTest, AThousandSpoolsComeAndGoAndLeaveNothingBehind) {
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  };
  const fakes::TempFolder folder;
  fakes::FaultyFiles disk;
  disk.really_sync = false;
  Scheduler scheduler;
  scheduler.Start();
  const auto descriptors = count("/proc/self/fd");
  const auto threads = count("/proc/self/task");
  std::atomic<int> answers{0};
  for (int i = 0; i < 1000; ++i) {
    SpoolStorage spool(scheduler, folder.Path(), "events", std::make_unique<FakeDataFormatter>(), {1, 600, 1},
                       SpoolStorage::kMaxFileCount, util::Clock::Real(), disk);
    for (const char* item : {"one ", "two"}) {
      spool.WriteAsync(ToBytes(item), [&](std::unique_ptr<StorageResult> result) {
        EXPECT_EQ(result->code, StorageCode::Success);
        ++answers;
      });
    }
    // Some end before their thread is there, some in its middle, some behind it.
    if (i % 2 == 0) {
      auto read = spool.Read();
      if (i > 0) {
        EXPECT_EQ(ToText(read->data), "one two") << "at start " << i;
        EXPECT_TRUE(spool.Delete(std::move(read)));
      }
    }
  }
  EXPECT_EQ(answers, 2000);
  EXPECT_EQ(count("/proc/self/fd"), descriptors);
  EXPECT_EQ(count("/proc/self/task"), threads);
  EXPECT_EQ(count(folder.Path().c_str()), 1000 - 499);
}

TEST(SpoolStorageStormTest, ManyWritersAndOneReaderLoseNothing) {
  // On the clock of the machine, with files that fill quickly.
  constexpr int kWriters = 4;
  constexpr int kItems = 200;
  constexpr std::size_t kItemSize = 200;
  const fakes::TempFolder folder;
  Scheduler scheduler;
  scheduler.Start();
  std::atomic<int> answers{0};
  std::size_t read_bytes = 0;
  const auto make = [&] {
    return std::make_unique<SpoolStorage>(scheduler, folder.Path(), "events", std::make_unique<FakeDataFormatter>(),
                                          SpoolStorage::Limits{10, 600, 2});
  };
  auto spool = make();
  const auto read_one = [&] {
    auto read = spool->Read();
    if (read->code != StorageCode::Success) return false;
    read_bytes += read->data.size();
    EXPECT_TRUE(spool->Delete(std::move(read)));
    return true;
  };
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&] {
      for (int item = 0; item < kItems; ++item) {
        spool->WriteAsync(Bytes(kItemSize, 'x'), [&](std::unique_ptr<StorageResult> result) {
          EXPECT_EQ(result->code, StorageCode::Success);
          ++answers;
        });
      }
    });
  }
  for (int i = 0; i < 50; ++i) read_one();
  for (std::thread& writer : writers) writer.join();
  spool.reset();
  EXPECT_EQ(answers, kWriters * kItems);
  spool = make();
  while (read_one()) {
  }
  EXPECT_EQ(read_bytes, kWriters * kItems * kItemSize);
}

}  // namespace
}  // namespace zagent::common
