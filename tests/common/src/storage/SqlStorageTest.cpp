#include "common/src/storage/SqlStorage.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "common/src/storage/SqlException.h"
#include "tests/common/src/storage/SqlStorageFixture.h"
#include "tests/fakes/SleepingCall.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::WhatOf;
using Poco::Message;
using Caching = SqlStorage::Caching;

class SqlStorageTest : public SqlStorageFixture {};

TEST_F(SqlStorageTest, RowsSurviveARestart) {
  Open();
  Write("a", "1");
  Open();
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "Performing the vacuum of the db"));
}

TEST_F(SqlStorageTest, WhatIsWrittenEqualsWhatIsRead) {
  Open();
  const Bytes row = storage_->MakeRow("a", INT64_MIN, std::string());
  storage_->Write("Items", "a", row);
  EXPECT_EQ(storage_->Read("Items", "a"), row);
}

TEST_F(SqlStorageTest, AKeyThatIsNotThereIsNoFailure) {
  Open();
  EXPECT_TRUE(storage_->Read("Items", "nobody").empty());
  EXPECT_EQ(WhatOf([&] { storage_->Read("Items", ""); }), "SqlStorage: 'key' is empty");
}

TEST_F(SqlStorageTest, AStatementWaitsForANeighbourABoundedTime) {
  Open();
  const auto neighbour = Neighbour();
  neighbour->Execute("BEGIN EXCLUSIVE");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WhatOf([&] { Write("a", "1"); }), "Failed to execute query");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "': database is locked")) << log_.All();
  neighbour->Execute("COMMIT");
  Write("a", "2");
  EXPECT_EQ(TextOf("a"), "2");
}

TEST_F(SqlStorageTest, AStatementGoesOnWhenTheNeighbourLetsGo) {
  Open();
  const auto neighbour = Neighbour();
  neighbour->Execute("BEGIN EXCLUSIVE");
  fakes::SleepingCall<std::string> write([&] { return WhatOf([&] { Write("a", "1"); }); });
  ASSERT_TRUE(write.AwaitAsleep()) << "it does not wait";
  neighbour->Execute("COMMIT");
  EXPECT_EQ(write.Get(), "nothing was thrown");
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageTest, ReadAllGivesEveryRowOfATable) {
  Open();
  storage_->Write("Items", {{"a", Row("a")}, {"b", Row("b")}});
  SqlRowIterator rows = storage_->ReadAll("Items");
  EXPECT_EQ(rows.Next(), Row("a"));
  EXPECT_EQ(rows.Next(), Row("b"));
  EXPECT_TRUE(rows.Next().empty());
  EXPECT_TRUE(storage_->ReadAll("Others").Next().empty());
}

TEST_F(SqlStorageTest, DeleteAndClearTakeWhatTheyName) {
  Open();
  storage_->Write("Items", {{"a", Row("a")}, {"b", Row("b")}});
  storage_->Write("Others", "c", Row("c"));
  storage_->Delete("Items", "a");
  EXPECT_EQ(CountItems(), 1);
  storage_->Clear("Items");
  EXPECT_EQ(CountItems(), 0);
  EXPECT_FALSE(storage_->Read("Others", "c").empty());
  storage_->Clear();
  EXPECT_TRUE(storage_->Read("Others", "c").empty());
}

TEST_F(SqlStorageTest, NoNameOfAFileMeansAnythingToSql) {
  Open();
  std::string every;
  for (int byte = 1; byte < 256; ++byte) every += static_cast<char>(byte);
  for (const std::string& name :
       {std::string("it's"), std::string("'; DELETE from Items; --"), std::string("''"), std::string("\\'"),
        std::string("a\nb\r\n"), std::string("/*"), std::string("?1 :a @b $c"), std::string("\xc3\x28 \xed\xa0\x80"),
        std::string("'") + every + "'", every}) {
    storage_->Write("Items", name, Row(name, 1, name));
    EXPECT_EQ(storage_->Read("Items", name), Row(name, 1, name));
    storage_->Delete("Items", name);
    EXPECT_EQ(CountItems(), 0) << name;
  }
}

TEST_F(SqlStorageTest, ANulIsLeftOutOfATextAndEndsNoStatement) {
  Open();
  const std::string name("ev\0il", 5);
  storage_->Write("Items", name, Row(name, 1, std::string("\0'); DROP TABLE Items", 21)));
  EXPECT_EQ(TextOf("evil"), "'); DROP TABLE Items");
  EXPECT_EQ(TextOf(name), "'); DROP TABLE Items");
}

TEST_F(SqlStorageTest, ATextIsAsLongAsItsBytesSay) {
  Open();
  storage_->Execute("INSERT INTO Items VALUES ('a', 1, CAST(x'610062' AS TEXT))");
  EXPECT_EQ(TextOf("a"), std::string("a\0b", 3));
}

TEST_F(SqlStorageTest, OneCallIsOneStatement) {
  Open();
  EXPECT_NO_THROW(storage_->Execute("INSERT INTO Items VALUES ('a', 1, '');"));
  for (const std::string& text :
       {std::string("DELETE from Items; DELETE from Others"), std::string("DELETE from Items; "),
        std::string("DELETE from Items;;"), std::string("DELETE from Items\0;", 19)}) {
    EXPECT_EQ(WhatOf([&] { storage_->Execute(text); }), "'query' has multiple statements");
    EXPECT_EQ(WhatOf([&] { storage_->ExecuteAll({text}); }), "'query' has multiple statements");
    EXPECT_EQ(WhatOf([&] { storage_->Query(text); }), "'query' has multiple statements");
  }
  EXPECT_EQ(WhatOf([&] { storage_->Query("SELECT 1; "); }), "'query' has multiple statements");
  EXPECT_EQ(CountItems(), 1);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "SqlStorage: Multiple sql statements in query 'DELETE from Items; DELETE from Others'"));
}

TEST_F(SqlStorageTest, ATextThatHoldsNoStatementIsRefused) {
  Open();
  for (const char* text : {"", " ", ";", "-- nothing", "/* nothing */"}) {
    EXPECT_EQ(WhatOf([&] { storage_->Execute(text); }), "Failed to compile query") << text;
    EXPECT_EQ(WhatOf([&] { storage_->Query(text); }), "Failed to compile query") << text;
  }
}

TEST_F(SqlStorageTest, EveryStatementAndItsFailureIsInTheLog) {
  Open();
  EXPECT_EQ(WhatOf([&] { storage_->Execute("DELETE from Nobody"); }), "Failed to compile query");
  storage_->Execute("INSERT INTO Items VALUES ('a', 1, '')");
  EXPECT_EQ(WhatOf([&] { storage_->Execute("INSERT INTO Items VALUES ('a', 1, '')"); }), "Failed to execute query");
  EXPECT_EQ(WhatOf([&] { storage_->Query("SELECT abs(-9223372036854775808)"); }), "Failed to execute query");
  EXPECT_EQ(WhatOf([&] { storage_->Execute("SELECT 1"); }), "Failed to execute query") << "a row is no end";
  EXPECT_TRUE(log_.Has(Message::PRIO_TRACE, "SqlStorage: Executing query 'DELETE from Nobody'"));
  EXPECT_TRUE(
      log_.Has(Message::PRIO_ERROR, "SqlStorage: Failed to compile 'DELETE from Nobody': no such table: Nobody"));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "SqlStorage: Failed to execute 'INSERT INTO Items VALUES ('a', 1, '')': UNIQUE constraint"))
      << log_.All();
}

TEST_F(SqlStorageTest, FailuresCarryTheExtendedCodeOfSqlite) {
  Open();
  Write("a", "1");
  try {
    storage_->Execute("INSERT INTO Items VALUES ('a', 1, '')");
    FAIL() << "nothing was thrown";
  } catch (const SqlException& error) {
    EXPECT_EQ(error.SqliteCode(), 1555);  // a constraint: the primary key
    EXPECT_EQ(error.Code(), 0);
    EXPECT_FALSE(error.IsDamage());
  }
}

TEST_F(SqlStorageTest, DamageIsDamageWhateverMoreTheCodeSays) {
  EXPECT_TRUE(SqlException("torn", SQLITE_CORRUPT).IsDamage());
  EXPECT_TRUE(SqlException("a torn index", SQLITE_CORRUPT | (3 << 8)).IsDamage());
  EXPECT_TRUE(SqlException("no database", SQLITE_NOTADB).IsDamage());
  EXPECT_FALSE(SqlException("a full disk", SQLITE_FULL).IsDamage());
}

TEST_F(SqlStorageTest, OnlyIntegersAndTextsTravel) {
  Open();
  storage_->Execute("INSERT INTO Items VALUES ('null', NULL, '')");
  storage_->Execute("INSERT INTO Items VALUES ('float', 1.5, '')");
  storage_->Execute("INSERT INTO Items VALUES ('blob', 1, x'00')");
  for (const char* key : {"null", "float", "blob"}) {
    EXPECT_EQ(WhatOf([&] { storage_->Read("Items", key); }), "Unsupported data type in table Items") << key;
  }
  EXPECT_EQ(WhatOf([&] { storage_->Query("SELECT 1.5"); }), "Unsupported data type in table ");
  // The half of a row that was built stops no other.
  Write("a", "1");
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageTest, AListIsWrittenWholeOrNotAtAll) {
  Open();
  Write("b", "old");
  EXPECT_EQ(
      WhatOf([&] {
        storage_->ExecuteAll({"INSERT INTO Items VALUES ('a', 1, '')", "DELETE from Items", "DELETE from Nobody"});
      }),
      "Failed to compile query");
  EXPECT_EQ(CountItems(), 1);
  EXPECT_EQ(TextOf("b"), "old");
  // And the connection is ready for the next one.
  storage_->ExecuteAll({"INSERT INTO Items VALUES ('a', 1, '')", "DELETE from Items WHERE Key = 'b'"});
  EXPECT_EQ(TextOf("a"), "");
  EXPECT_EQ(TextOf("b"), "(none)");
  EXPECT_NO_THROW(storage_->ExecuteAll({}));
}

TEST_F(SqlStorageTest, ATransactionThatCannotBeginSaysSo) {
  Open();
  storage_->Execute("BEGIN");
  EXPECT_EQ(WhatOf([&] { storage_->ExecuteAll({"DELETE from Items"}); }),
            "Failed to start trasaction: cannot start a transaction within a transaction");
}

TEST_F(SqlStorageTest, ATransactionThatCannotEndSaysSoAndIsTakenBack) {
  Open();
  Write("a", "1");
  const auto reader = Neighbour();
  reader->Execute("BEGIN");
  reader->Query("SELECT * from Items");
  EXPECT_EQ(WhatOf([&] { storage_->ExecuteAll({"DELETE from Items"}); }),
            "Failed to commit trasaction: database is locked");
  reader->Execute("END");
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_FALSE(log_.Has("Failed to rollback"));
  EXPECT_NO_THROW(storage_->ExecuteAll({"DELETE from Items"}));
}

TEST_F(SqlStorageTest, ATransactionThatCannotBeTakenBackIsLogged) {
  Open();
  EXPECT_EQ(WhatOf([&] { storage_->ExecuteAll({"COMMIT", "DELETE from Nobody"}); }), "Failed to compile query");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "Failed to rollback the last transaction: cannot rollback - no transaction is active"));
}

TEST_F(SqlStorageTest, AFullDatabaseLosesOnlyTheListThatDidNotFit) {
  Open();
  Write("a", "1");
  storage_->Query("PRAGMA max_page_count = 1");  // as small as the file is by now
  EXPECT_EQ(WhatOf([&] {
              storage_->Write("Items", {{"b", Row("b")}, {"c", Row("c", 1, std::string(100'000, 'x'))}});
            }),
            "Failed to execute query");
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "database or disk is full"));
  EXPECT_EQ(CountItems(), 1);
  storage_->Query("PRAGMA max_page_count = 1000");
  Write("b", "2");
  EXPECT_EQ(TextOf("b"), "2");
}

TEST_F(SqlStorageTest, ATableIsReplacedByOtherRows) {
  for (const bool is_bound : {false, true}) {
    SCOPED_TRACE(is_bound);
    Open({.inserts_are_bound = is_bound}, Caching::On);
    storage_->Clear();
    Write("old", "text");
    Write("kept", "text");
    storage_->Write("Others", "other", Row("other"));
    const std::string hostile = "it's\n?1 \xff";
    storage_->Replace("Items", {{"kept", Row("kept", -7, hostile)},
                                {"nul", Row("nul", 1, std::string("a\0b", 3))},
                                {"twice", Row("twice", 1, "first")},
                                {"twice", Row("twice", 2, "last")}});
    EXPECT_EQ(CountItems(), 3);
    EXPECT_EQ(TextOf("old"), "(none)");
    EXPECT_EQ(TextOf("kept"), hostile);
    EXPECT_EQ(Number("SELECT Number from Items WHERE Key = 'kept'"), -7);
    EXPECT_EQ(TextOf("nul"), "ab");
    EXPECT_EQ(TextOf("twice"), "last");
    EXPECT_EQ(Number("SELECT count(*) from Others"), 1);
    storage_->Replace("Items", {});
    EXPECT_EQ(CountItems(), 0);
  }
}

TEST_F(SqlStorageTest, ATableIsReplacedWholeOrNotAtAll) {
  for (const bool is_bound : {false, true}) {
    SCOPED_TRACE(is_bound);
    Open({.inserts_are_bound = is_bound});
    Write("old", "text");
    Bytes cut_short = Row("cut", 1, "text");
    cut_short.resize(cut_short.size() - 1);
    EXPECT_EQ(WhatOf<std::out_of_range>([&] {
                storage_->Replace("Items", {{"new", Row("new")}, {"cut", cut_short}});
              }),
              "Serializer: Insufficient bytes to get string");
    EXPECT_THROW(storage_->Replace("None", {{"new", Row("new")}}), StorageException);
    EXPECT_EQ(CountItems(), 1);
    EXPECT_EQ(TextOf("old"), "text");
  }
}

TEST_F(SqlStorageTest, ABoundRowThatTheDatabaseRefusesIsToldWithItsStatement) {
  Open({.inserts_are_bound = true});
  storage_->Execute(
      "CREATE TRIGGER refuse BEFORE INSERT ON Items WHEN new.Number = 13 BEGIN SELECT RAISE(ABORT, 'no'); END");
  Write("old", "text");
  EXPECT_THROW(storage_->Replace("Items", {{"new", Row("new")}, {"bad", Row("bad", 13)}}), SqlException);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR,
                       "SqlStorage: Failed to execute 'INSERT or REPLACE INTO Items VALUES (?1, ?2, ?3)': no"))
      << log_.All();
  EXPECT_EQ(CountItems(), 1);
  EXPECT_EQ(TextOf("old"), "text");
}

// Changed pages wait in memory for the end of their transaction, and go then.
TEST_F(SqlStorageTest, ALargeDatabaseTakesLittleMemory) {
  constexpr std::int64_t kBound = 700'000;
  const auto kilobyte = std::string(1'000, 'x');
  Open();
  SqlStorage::Rows rows;
  for (int i = 0; i < 5'000; ++i) rows.emplace_back("", Row(std::to_string(i), i, kilobyte));
  storage_->Write("Items", rows);
  EXPECT_LT(sqlite3_memory_used(), kBound);
  Open();
  for (int i = 0; i < 5'000; i += 3) EXPECT_EQ(TextOf(std::to_string(i)), kilobyte);
  EXPECT_LT(sqlite3_memory_used(), kBound);
}

TEST_F(SqlStorageTest, AFolderThatIsGoneFailsTheWriteAndNothingElse) {
  Open();
  Write("a", "1");
  std::filesystem::remove_all(folder_.Path());
  EXPECT_EQ(WhatOf([&] { storage_->Write("Items", {{"b", Row("b")}}); }), "Failed to execute query");
  EXPECT_FALSE(storage_->IsDamaged());
}

TEST_F(SqlStorageTest, TheCacheSparesTheDatabaseAKnownRow) {
  Open({}, Caching::On);
  Write("a", "1");
  // Behind its back.
  storage_->Execute("UPDATE Items SET Text = 'other'");
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage Cache: hits: 1, misses: 0, writes: 1, not founds: 0"));
}

TEST_F(SqlStorageTest, WhetherARowIsThereTheCacheKnowsOrTheDatabase) {
  Open();
  EXPECT_FALSE(storage_->Has("Items", "a"));
  Write("a", "1");
  EXPECT_TRUE(storage_->Has("Items", "a"));
  EXPECT_EQ(WhatOf([&] { (void)storage_->Has("Items", ""); }), "SqlStorage: 'key' is empty");
  Open({}, Caching::On);
  EXPECT_TRUE(storage_->Has("Items", "a")) << "by the database";
  storage_->Execute("DELETE from Items");
  EXPECT_TRUE(storage_->Has("Items", "a")) << "by the cache";
  EXPECT_FALSE(storage_->Has("Items", "b"));
}

TEST_F(SqlStorageTest, WhatTheCacheHasForgottenIsReadFromTheDatabase) {
  Open();
  storage_->ForgetCached();  // without a cache there is none
  Open({}, Caching::On);
  Write("a", "1");
  storage_->Execute("UPDATE Items SET Text = 'other'");
  storage_->ForgetCached();
  EXPECT_EQ(TextOf("a"), "other");
}

TEST_F(SqlStorageTest, TheCacheKeepsWhatAReadFound) {
  Open();
  Write("a", "1");
  Open({}, Caching::On);
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_EQ(TextOf("b"), "(none)");
  storage_->Execute("DELETE from Items");
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "SqlStorage Cache: hits: 1, misses: 2, writes: 0, not founds: 1"))
      << log_.All();
}

TEST_F(SqlStorageTest, TheCacheFollowsEveryChange) {
  Open({}, Caching::On);
  Write("a", "1");
  storage_->Write("Items", {{"a", Row("a", 1, "2")}, {"b", Row("b")}});
  EXPECT_EQ(TextOf("a"), "2");
  storage_->Delete("Items", "a");
  EXPECT_EQ(TextOf("a"), "(none)");
  storage_->Clear("Items");
  EXPECT_EQ(TextOf("b"), "(none)");
  Write("c", "3");
  storage_->Clear();
  EXPECT_EQ(TextOf("c"), "(none)");
}

TEST_F(SqlStorageTest, AWriteThatFailsIsNotInTheCache) {
  Open({}, Caching::On);
  Write("a", "1");
  EXPECT_THROW(storage_->Write("Nothing", "a", Row("a")), StorageException);
  EXPECT_THROW(storage_->Read("Nothing", "a"), StorageException);
}

TEST_F(SqlStorageTest, WithoutASchedulerNothingIsAsynchronous) {
  Open();
  const auto nobody = [](const SqlStorage::Result&) { FAIL() << "it was called"; };
  EXPECT_EQ(WhatOf([&] { storage_->WriteAsync("Items", {}, nobody); }),
            "SqlStorage is not configured for Async operations");
  EXPECT_EQ(WhatOf([&] { storage_->ReadAsync("Items", "a", nobody); }),
            "SqlStorage is not configured for Async operations");
  EXPECT_EQ(WhatOf([&] { storage_->DeleteAsync("Items", "a", nobody); }),
            "SqlStorage is not configured for Async operations");
}

}  // namespace
}  // namespace zagent::common
