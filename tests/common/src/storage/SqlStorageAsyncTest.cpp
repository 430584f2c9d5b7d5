#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/tasks/Scheduler.h"
#include "tests/fakes/FakeSqlFormatter.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/Mailbox.h"
#include "tests/fakes/SleepingCall.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FakeSqlFormatter;
using fakes::Gate;
using fakes::Mailbox;
using fakes::SleepingCall;
using fakes::WhatOf;
using Poco::Message;
using Caching = SqlStorage::Caching;
using Result = SqlStorage::Result;

// Has one statement for many keys.
class BindingFormatter final : public FakeSqlFormatter {
 public:
  [[nodiscard]] std::string DeleteBound(const std::string& table) override {
    return "DELETE from " + table + " WHERE Key = ?1;";
  }
};

class SqlStorageAsyncTest : public ::testing::Test {
 protected:
  SqlStorageAsyncTest() {
    scheduler_.Start();
    Open(Caching::Off);
  }

  void Open(Caching caching) {
    storage_.reset();
    storage_ = std::make_unique<SqlStorage>(folder_.Path(), "Test.db", std::make_unique<FakeSqlFormatter>(),
                                            &scheduler_, caching);
  }
  Bytes Row(const std::string& key, const std::string& text) { return storage_->MakeRow(key, std::int64_t{1}, text); }
  static std::string TextIn(const Bytes& row) {
    if (row.empty()) return "(none)";
    Serializer columns(row);
    columns.GetString();
    columns.GetInteger();
    return columns.GetString();
  }
  std::string TextOf(const std::string& key) { return TextIn(storage_->Read("Items", key)); }
  SqlStorage::Callback Deliver() {
    return [this](const Result& result) { results_.Put(result); };
  }
  Result Take() {
    auto result = results_.Take();
    EXPECT_TRUE(result) << "no callback came";
    return result.value_or(Result{});
  }
  // Occupies the storage's thread until the gate opens.
  std::shared_ptr<Gate> Block() {
    const auto started = std::make_shared<Gate>();
    const auto release = std::make_shared<Gate>();
    storage_->ReadAsync("Items", "nobody", [started, release](const Result&) {
      started->Open();
      EXPECT_TRUE(release->Await());
    });
    EXPECT_TRUE(started->Await());
    return release;
  }

  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  Scheduler scheduler_;
  Mailbox<Result> results_;
  std::unique_ptr<SqlStorage> storage_;
};

TEST_F(SqlStorageAsyncTest, AListIsWrittenReadAndDeletedOnTheTasksThread) {
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}, {"b", Row("b", "2")}}, Deliver());
  EXPECT_TRUE(Take().succeeded);
  storage_->ReadAsync("Items", "b", Deliver());
  EXPECT_EQ(TextIn(Take().row), "2");
  storage_->DeleteAsync("Items", "b", Deliver());
  EXPECT_TRUE(Take().succeeded);
  storage_->ReadAsync("Items", "b", Deliver());
  const Result gone = Take();
  EXPECT_TRUE(gone.succeeded);
  EXPECT_TRUE(gone.row.empty());
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageAsyncTest, AListOfKeysIsDeletedAtOnceOrNotAtAll) {
  for (const Caching caching : {Caching::Off, Caching::On}) {
    Open(caching);
    storage_->Write("Items", {{"a", Row("a", "1")}, {"b", Row("b", "2")}, {"c", Row("c", "3")}});
    storage_->DeleteAsync("Items", std::vector<std::string>{"a", "b", "nobody"}, Deliver());
    EXPECT_EQ(TextOf("a"), "(none)");
    EXPECT_TRUE(Take().succeeded);
    EXPECT_EQ(TextOf("b"), "(none)");
    EXPECT_EQ(TextOf("c"), "3");
    storage_->Write("Items", "a", Row("a", "1"));
    storage_->Execute(
        "CREATE TRIGGER keep BEFORE DELETE ON Items WHEN OLD.Key = 'c' BEGIN SELECT RAISE(ABORT, ''); END");
    storage_->DeleteAsync("Items", std::vector<std::string>{"a", "c"}, Deliver());
    EXPECT_FALSE(Take().succeeded);
    EXPECT_EQ(TextOf("a"), "1");
    storage_->Execute("DROP TRIGGER keep");
  }
  EXPECT_EQ(WhatOf([&] { storage_->DeleteAsync("Items", std::vector<std::string>{"a"}, nullptr); }),
            "SqlStorage: onDeleteCallback is invalid");
}

TEST_F(SqlStorageAsyncTest, AListOfKeysIsDeletedByOneStatementWhereTheFormatterHasOne) {
  storage_.reset();
  storage_ = std::make_unique<SqlStorage>(folder_.Path(), "Test.db", std::make_unique<BindingFormatter>(), &scheduler_,
                                          Caching::Off);
  const std::string with_nul("n\0ul", 5);
  storage_->Write(
      "Items", {{"a", Row("a", "1")}, {"it's", Row("it's", "2")}, {"nul", Row(with_nul, "3")}, {"c", Row("c", "4")}});
  EXPECT_EQ(TextOf("nul"), "3");
  storage_->DeleteAsync("Items", std::vector<std::string>{"a", "nobody", "it's", with_nul}, Deliver());
  EXPECT_TRUE(Take().succeeded);
  for (const char* key : {"a", "it's", "nul"}) EXPECT_EQ(TextOf(key), "(none)") << key;
  EXPECT_EQ(TextOf("c"), "4");
  EXPECT_EQ(log_.Count("Executing query 'DELETE from Items"), 1);

  storage_->Write("Items", "a", Row("a", "1"));
  storage_->Execute("CREATE TRIGGER keep BEFORE DELETE ON Items WHEN OLD.Key = 'c' BEGIN SELECT RAISE(ABORT, ''); END");
  storage_->DeleteAsync("Items", std::vector<std::string>{"a", "c"}, Deliver());
  EXPECT_FALSE(Take().succeeded);
  EXPECT_EQ(TextOf("a"), "1") << "all or nothing";
  storage_->Execute("DROP TRIGGER keep");
  storage_->DeleteAsync("Items", std::vector<std::string>{"a", "c"}, Deliver());
  EXPECT_TRUE(Take().succeeded) << "what has failed leaves nothing open";
}

TEST_F(SqlStorageAsyncTest, AChangeThatTheCacheHasForgottenIsWaitedFor) {
  Open(Caching::On);
  storage_->Write("Items", "a", Row("a", "old"));
  const auto release = Block();
  storage_->WriteAsync("Items", {{"a", Row("a", "new")}}, Deliver());
  storage_->ForgetCached();
  auto text = std::async(std::launch::async, [this] { return TextOf("a"); });
  EXPECT_EQ(text.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  release->Open();
  EXPECT_EQ(text.get(), "new");
  EXPECT_TRUE(Take().succeeded);
  EXPECT_EQ(TextOf("a"), "new");
}

TEST_F(SqlStorageAsyncTest, CallbacksComeOnOneThreadThatIsNotTheCallers) {
  Mailbox<std::thread::id> threads;
  for (int i = 0; i < 2; ++i) {
    storage_->ReadAsync("Items", "a", [&](const Result&) { threads.Put(std::this_thread::get_id()); });
  }
  const auto first = threads.Take();
  EXPECT_EQ(first, threads.Take());
  EXPECT_NE(first, std::this_thread::get_id());
}

TEST_F(SqlStorageAsyncTest, AMissingCallbackHasItsText) {
  EXPECT_EQ(WhatOf([&] { storage_->WriteAsync("Items", {}, nullptr); }), "onWriteCallback is invalid");
  EXPECT_EQ(WhatOf([&] { storage_->ReadAsync("Items", "a", nullptr); }), "SqlStorage: onReadCallback is invalid");
  EXPECT_EQ(WhatOf([&] { storage_->DeleteAsync("Items", "a", nullptr); }), "SqlStorage: onDeleteCallback is invalid");
  EXPECT_EQ(WhatOf([&] { storage_->ReadAsync("Items", "", Deliver()); }), "SqlStorage: 'key' is empty");
}

TEST_F(SqlStorageAsyncTest, AListThatFailsIsToldLoggedAndNotThere) {
  storage_->Execute(
      "CREATE TRIGGER Refuse BEFORE INSERT ON Items WHEN NEW.Text = 'bad' BEGIN SELECT RAISE(FAIL, 'no'); END");
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}, {"b", Row("b", "bad")}}, Deliver());
  const Result result = Take();
  EXPECT_FALSE(result.succeeded);
  EXPECT_EQ(result.error, "Failed to execute query");
  EXPECT_EQ(TextOf("a"), "(none)");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Failed to execute background task: Failed to execute query"));
  // The tasks go on.
  storage_->WriteAsync("Items", {{"a", Row("a", "2")}}, Deliver());
  EXPECT_TRUE(Take().succeeded);
}

TEST_F(SqlStorageAsyncTest, ASynchronousCallWaitsForItsTurn) {
  const auto release = Block();
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, Deliver());
  SleepingCall<std::string> read([&] { return TextOf("a"); });
  ASSERT_TRUE(read.AwaitAsleep());
  release->Open();
  ASSERT_TRUE(read.AwaitEnd());
  EXPECT_EQ(read.Get(), "1");
}

TEST_F(SqlStorageAsyncTest, WhatFailsInASynchronousCallReachesTheCaller) {
  EXPECT_EQ(WhatOf([&] { storage_->Execute("DELETE from Nobody"); }), "Failed to compile query");
  EXPECT_EQ(WhatOf([&] { storage_->Query("SELECT 1.5"); }), "Unsupported data type in table ");
  EXPECT_THROW(storage_->Write("Items", "a", {1}), std::out_of_range) << "the formatter's own words";
}

TEST_F(SqlStorageAsyncTest, ASynchronousCallFromACallbackRunsAtOnce) {
  Mailbox<std::string> texts;
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, [&](const Result&) {
    texts.Put(TextOf("a"));
    storage_->Write("Items", {{"b", Row("b", "2")}});
    texts.Put(TextOf("b"));
    texts.Put(WhatOf([&] { storage_->Execute("DELETE from Nobody"); }));
  });
  EXPECT_EQ(texts.Take(), "1");
  EXPECT_EQ(texts.Take(), "2");
  EXPECT_EQ(texts.Take(), "Failed to compile query");
}

TEST_F(SqlStorageAsyncTest, WithoutARunningSchedulerSynchronousCallsFailInsteadOfWaiting) {
  storage_->Write("Items", "a", Row("a", "1"));
  scheduler_.Stop();
  EXPECT_EQ(WhatOf([&] { storage_->Write("Items", "a", Row("a", "2")); }),
            "SqlStorage: nothing runs the tasks of " + (folder_ / "Test.db"));
  EXPECT_THROW(storage_->Read("Items", "a"), StorageException);
  EXPECT_THROW(storage_->Clear(), StorageException);
}

TEST_F(SqlStorageAsyncTest, ACallerThatWaitsWhenTheSchedulerStopsIsServedByTheRunThatEnds) {
  const auto release = Block();
  SleepingCall<std::string> waiting([&] { return WhatOf([&] { storage_->Vacuum(); }); });
  ASSERT_TRUE(waiting.AwaitAsleep());
  SleepingCall<bool> stopped([&] {
    scheduler_.Stop();
    return true;
  });
  ASSERT_TRUE(stopped.AwaitAsleep()) << "it does not wait for the run";
  release->Open();
  ASSERT_TRUE(waiting.AwaitEnd());
  EXPECT_EQ(waiting.Get(), "nothing was thrown");
  EXPECT_TRUE(stopped.AwaitEnd());
}

TEST_F(SqlStorageAsyncTest, WhatWaitsWhenTheStorageGoesIsWrittenBeforeTheConnectionCloses) {
  const auto release = Block();
  for (int i = 0; i < 10; ++i) {
    const std::string key = "key " + std::to_string(i);
    storage_->WriteAsync("Items", {{key, Row(key, "x")}}, Deliver());
  }
  auto gone = std::async(std::launch::async, [&] { storage_.reset(); });
  release->Open();
  gone.get();
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(Take().succeeded);
  Open(Caching::Off);
  EXPECT_EQ(TextOf("key 9"), "x");
}

TEST_F(SqlStorageAsyncTest, WhatNoSchedulerEverRanIsWrittenAtTheEnd) {
  Scheduler never_started;
  storage_.reset();
  storage_ = std::make_unique<SqlStorage>(folder_.Path(), "Idle.db", std::make_unique<FakeSqlFormatter>(),
                                          &never_started, Caching::Off);
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, Deliver());
  EXPECT_TRUE(results_.IsEmpty());
  storage_.reset();
  EXPECT_TRUE(Take().succeeded);
}

TEST_F(SqlStorageAsyncTest, AfterTheSchedulersStopAnAsynchronousOperationFailsAtOnce) {
  Open(Caching::On);
  scheduler_.Stop();
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, Deliver());
  EXPECT_FALSE(results_.IsEmpty());
  EXPECT_FALSE(Take().succeeded);
  EXPECT_THROW(storage_->Read("Items", "a"), StorageException) << "it is in the cache and nowhere else";
}

TEST_F(SqlStorageAsyncTest, ASchedulerThatLetGoOfItsSchedulesIsNoFailureAtTheEnd) {
  scheduler_.RemoveAllSchedules();
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, Deliver());
  const Result refused = Take();
  EXPECT_FALSE(refused.succeeded);
  EXPECT_EQ(refused.error, "SqlStorage: refused a task of " + (folder_ / "Test.db"));
  storage_.reset();
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage: UnregisterSchedule: 'schedule' is not registered"))
      << log_.All();
}

TEST_F(SqlStorageAsyncTest, BeyondTheBoundOfTheQueueAWriteIsRefusedAtOnce) {
  Poco::Logger::get("edr").setLevel(Message::PRIO_ERROR);  // the statements are large
  const SqlStorage::Rows rows{{"a", Row("a", std::string(20 * 1024 * 1024, 'x'))}};
  const auto release = Block();
  int refused = 0;
  for (int i = 0; i < 4; ++i) {
    storage_->WriteAsync("Items", rows, [&](const Result& result) {
      if (!result.succeeded) ++refused;
    });
  }
  EXPECT_EQ(refused, 1) << "three of them fit into 64 MiB";
  release->Open();
  storage_->Delete("Items", "a");
}

TEST_F(SqlStorageAsyncTest, BeyondTheBoundOfTheQueueADeletionIsRefusedToo) {
  Poco::Logger::get("edr").setLevel(Message::PRIO_ERROR);  // the statements are large
  const std::string key(12 * 1024 * 1024, 'x');            // it weighs itself and in its statement
  for (const bool as_list : {false, true}) {
    const auto release = Block();
    int refused = 0;
    const auto count = [&](const Result& result) {
      if (!result.succeeded) ++refused;
    };
    for (int i = 0; i < 3; ++i) {
      if (as_list) {
        storage_->DeleteAsync("Items", std::vector<std::string>{key}, count);
      } else {
        storage_->DeleteAsync("Items", key, count);
      }
    }
    EXPECT_EQ(refused, 1) << "two of them fit into 64 MiB";
    release->Open();
    storage_->Delete("Items", "a");
  }
}

TEST_F(SqlStorageAsyncTest, TheCacheKnowsAWriteBeforeTheDatabaseDoes) {
  Open(Caching::On);
  const auto release = Block();
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, Deliver());
  EXPECT_EQ(TextOf("a"), "1") << "without waiting for a turn";
  storage_->WriteAsync("Items", {{"a", Row("a", "2")}}, Deliver());
  EXPECT_EQ(TextOf("a"), "2");
  release->Open();
  EXPECT_TRUE(Take().succeeded);
  EXPECT_TRUE(Take().succeeded);
  EXPECT_EQ(TextOf("a"), "2");
  Open(Caching::Off);
  EXPECT_EQ(TextOf("a"), "2");
}

TEST_F(SqlStorageAsyncTest, AReadThatWaitedBehindADeleteDoesNotBringTheRowBack) {
  storage_->Write("Items", "a", Row("a", "1"));
  Open(Caching::On);
  const auto release = Block();
  storage_->ReadAsync("Items", "a", Deliver());
  storage_->DeleteAsync("Items", "a", Deliver());
  release->Open();
  EXPECT_EQ(TextIn(Take().row), "1");
  EXPECT_TRUE(Take().succeeded);
  EXPECT_EQ(TextOf("a"), "(none)");
}

TEST_F(SqlStorageAsyncTest, TheCacheForgetsAWriteThatFailedBeforeItsCallback) {
  Open(Caching::On);
  storage_->Execute("DROP TABLE Items");
  Mailbox<std::string> seen;
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}},
                       [&](const Result&) { seen.Put(WhatOf([&] { storage_->Read("Items", "a"); })); });
  EXPECT_EQ(seen.Take(), "Failed to compile query") << "the row came from the cache";
}

TEST_F(SqlStorageAsyncTest, WhatACallbackWritesReplacesInTheCacheWhatItWasToldOf) {
  Open(Caching::On);
  Mailbox<std::string> seen;
  storage_->WriteAsync("Items", {{"a", Row("a", "1")}}, [&](const Result&) {
    storage_->Write("Items", "a", Row("a", "2"));
    seen.Put(TextOf("a"));
  });
  EXPECT_EQ(seen.Take(), "2") << "the change that has ended still shields its row";
}

TEST_F(SqlStorageAsyncTest, TheCacheForgetsAListThatTheFormatterRefused) {
  Open(Caching::On);
  const Bytes broken{1, 2, 3};
  EXPECT_THROW(storage_->WriteAsync("Items", {{"a", Row("a", "1")}, {"b", broken}}, Deliver()), std::out_of_range);
  EXPECT_EQ(TextOf("a"), "(none)");
}

TEST_F(SqlStorageAsyncTest, AThousandStoragesComeAndGoAndLeaveNothingBehind) {
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
  };
  storage_.reset();
  const auto descriptors = count("/proc/self/fd");
  const auto threads = count("/proc/self/task");
  for (int i = 0; i < 1000; ++i) {
    Open(i % 2 == 0 ? Caching::On : Caching::Off);
    // Some end before their thread is there, some in its middle, some behind it.
    storage_->WriteAsync("Items", {{"a", Row("a", std::to_string(i))}}, Deliver());
    if (i % 3 == 0) {
      EXPECT_EQ(TextOf("a"), std::to_string(i));
    }
  }
  storage_.reset();
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(Take().succeeded);
  EXPECT_EQ(count("/proc/self/fd"), descriptors);
  EXPECT_EQ(count("/proc/self/task"), threads);
}

TEST_F(SqlStorageAsyncTest, ManyThreadsShareOneStorage) {
  Open(Caching::On);
  constexpr int kThreads = 4;
  constexpr int kRounds = 20;
  std::atomic<int> answers{0};
  std::vector<std::future<void>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const std::string key = std::to_string(t) + "/" + std::to_string(i % 3);
        const std::string text = std::to_string(i);
        storage_->WriteAsync("Items", {{key, Row(key, text)}}, [&](const Result& result) {
          EXPECT_TRUE(result.succeeded);
          ++answers;
        });
        EXPECT_EQ(TextOf(key), text);
        if (i % 5 == 4) {
          storage_->DeleteAsync("Items", key, [&](const Result&) { ++answers; });
          EXPECT_EQ(TextOf(key), "(none)");
        }
      }
    }));
  }
  for (auto& thread : threads) thread.get();
  storage_->Vacuum();
  EXPECT_EQ(answers, kThreads * (kRounds + kRounds / 5));
}

}  // namespace
}  // namespace zagent::common
