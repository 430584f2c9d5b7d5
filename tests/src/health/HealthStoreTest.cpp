#include "src/health/HealthStore.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/health/StatusTable.h"

namespace zagent::health {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class HealthStoreTest : public testing::Test {
 protected:
  HealthStoreTest() { store_.emplace(folder_.Path(), HealthStore::kFileName, clock_); }

  static HealthStatus Manifest(const std::string& path, State state = State::Good) {
    return {StatusCode::FimManifest, path, state, {{"manifest", "applied"}}, {}};
  }
  StatusTable Table() { return StatusTable(folder_ / HealthStore::kFileName); }
  static std::vector<std::string> Contexts(const HealthStore::Batch& batch) {
    std::vector<std::string> contexts;
    for (const AHSRecord& record : batch.records) contexts.push_back(record.context_id);
    return contexts;
  }
  // Puts a folder where the database should be, which nobody can open as one.
  void BlockDatabase() { std::filesystem::create_directory(folder_ / HealthStore::kFileName); }
  void UnblockDatabase() { std::filesystem::remove(folder_ / HealthStore::kFileName); }

  fakes::LogCapture log_;
  fakes::FakeClock clock_;  // begins at 2023-11-14T22:13:20Z
  fakes::TempFolder folder_;
  std::optional<HealthStore> store_;
};

TEST_F(HealthStoreTest, WritesAStatusWithItsTimeAtOnce) {
  store_->Report({StatusCode::FimUpload, "FIM", State::Bad, {{"httpStatus", "500"}}, {{"correlationId", "id"}}});
  EXPECT_THAT(Table().Ask("SELECT * FROM AgentStatus"),
              ElementsAre(R"(2023-11-14T22:13:20Z|FIM|4003|0|{"httpStatus":"500","correlationId":"id"})"));
  EXPECT_THAT(Table().Ask("PRAGMA user_version"), ElementsAre("1"));
}

TEST_F(HealthStoreTest, WritesOnlyWhatIsNews) {
  store_->Report(Manifest("/a"));
  store_->Report(Manifest("/a"));
  store_->Report(Manifest("/b"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a", "/b"));
  store_->Report(Manifest("/a", State::Bad));
  store_->Report(Manifest("/a", State::Bad));
  store_->Report(Manifest("/a"));
  EXPECT_THAT(Table().Ask("SELECT State FROM AgentStatus WHERE ContextId = '/a' ORDER BY rowid"),
              ElementsAre("1", "0", "1"));
}

TEST_F(HealthStoreTest, AnotherFieldIsNewsAndAnotherDetailIsNot) {
  const auto upload = [&](const char* http, const char* id) {
    store_->Report({StatusCode::FimUpload, "FIM", State::Bad, {{"httpStatus", http}}, {{"correlationId", id}}});
  };
  upload("500", "1");
  upload("500", "2");
  upload("0", "3");
  EXPECT_THAT(Table().Contexts(), SizeIs(2));
  store_->Report({StatusCode::IocUpload, "FIM", State::Bad, {{"httpStatus", "0"}}, {}});
  EXPECT_THAT(Table().Contexts(), SizeIs(3)) << "another code is another status";
}

TEST_F(HealthStoreTest, ABatchHoldsTheRowsForUploadInTheirOrder) {
  store_->Report(Manifest("/b"));
  clock_.SetWall(std::chrono::hours(-1));
  store_->Report(Manifest("/a"));
  Table().Insert("lower", 4000);
  Table().Insert("highest", 5000);
  Table().Insert("higher", 5001);
  const HealthStore::Batch batch = store_->TakeBatch();
  EXPECT_THAT(Contexts(batch), ElementsAre("/b", "/a", "highest"));
  EXPECT_EQ(batch.records[1].time, "2023-11-14T21:13:20Z");
  EXPECT_EQ(batch.records[1].additional_fields, R"({"manifest":"applied"})");
}

TEST_F(HealthStoreTest, ADeletedBatchTakesOnlyRowsForUpload) {
  store_->Report(Manifest("/a"));
  Table().Insert("lower", 4000);
  Table().Insert("higher", 5001);
  store_->TakeBatch().Delete();
  EXPECT_THAT(Table().Contexts(), ElementsAre("lower", "higher"));
  EXPECT_THAT(store_->TakeBatch().records, IsEmpty());
}

TEST_F(HealthStoreTest, ABatchThatIsNotDeletedComesAgain) {
  store_->Report(Manifest("/a"));
  EXPECT_THAT(Contexts(store_->TakeBatch()), ElementsAre("/a"));
  EXPECT_THAT(Contexts(store_->TakeBatch()), ElementsAre("/a"));
}

TEST_F(HealthStoreTest, WhatIsReportedWhileABatchIsAwaySurvivesItsDelete) {
  store_->Report(Manifest("/a"));
  {
    HealthStore::Batch batch = store_->TakeBatch();
    store_->Report(Manifest("/b"));
    EXPECT_THAT(Table().Contexts(), ElementsAre("/a")) << "it waits";
    batch.Delete();
    store_->Report(Manifest("/c"));
    EXPECT_THAT(Table().Contexts(), IsEmpty());
  }
  EXPECT_THAT(Table().Contexts(), ElementsAre("/b", "/c"));
}

TEST_F(HealthStoreTest, TheOldestOfTooManyWaitingStatusesIsDropped) {
  {
    const HealthStore::Batch batch = store_->TakeBatch();
    for (std::size_t i = 0; i <= HealthStore::kMaxWaiting; ++i) store_->Report(Manifest("/" + std::to_string(i)));
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "More than 1000 statuses wait: the oldest is dropped"));
    EXPECT_GT(store_->GetWaitingBytes(), HealthStore::kMaxWaiting * 20);
  }
  EXPECT_EQ(store_->GetWaitingBytes(), 0U);
  const auto contexts = Table().Contexts();
  ASSERT_THAT(contexts, SizeIs(HealthStore::kMaxWaiting));
  EXPECT_EQ(contexts.front(), "/1");
  EXPECT_EQ(contexts.back(), "/1000");
}

TEST_F(HealthStoreTest, RowsThatCannotBeSentForLongDoNotFillTheDisk) {
  Table().Ask(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000) INSERT INTO AgentStatus "
      "SELECT '2024-05-01T10:20:30Z', i, 4001, 1, '' FROM n");
  store_->Report(Manifest("/a"));
  const auto contexts = Table().Contexts();
  ASSERT_THAT(contexts, SizeIs(5000));
  EXPECT_EQ(contexts.front(), "2");
  EXPECT_EQ(contexts.back(), "/a");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "More than 5000 statuses could not be sent yet"));
}

TEST_F(HealthStoreTest, AComponentThatReportsTooMuchTakesNothingFromTheOthers) {
  StatusTable table = Table();
  table.Insert("of no upload", 5001);
  table.Insert("of the other component", 4101);
  table.Ask(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 4999) INSERT INTO AgentStatus "
      "SELECT '2024-05-01T10:20:30Z', i, 4001, 1, '' FROM n");
  store_->Report(Manifest("/a"));
  const auto contexts = table.Contexts();
  ASSERT_THAT(contexts, SizeIs(5001));  // 5000 of them for upload
  EXPECT_EQ(contexts[0], "of no upload");
  EXPECT_EQ(contexts[1], "of the other component");
  EXPECT_EQ(contexts[2], "2");
  EXPECT_EQ(contexts.back(), "/a");
}

TEST_F(HealthStoreTest, RowsSurviveTheEndOfTheProgram) {
  store_->Report(Manifest("/a"));
  store_.reset();
  store_.emplace(folder_.Path(), HealthStore::kFileName, clock_);
  store_->Report(Manifest("/a"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a", "/a")) << "a new run tells anew how it does";
}

TEST_F(HealthStoreTest, WhatALockedDatabaseRefusedIsWrittenLater) {
  {
    StatusTable other = Table();
    other.Ask("BEGIN EXCLUSIVE");
    store_->Report(Manifest("/a"));
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "AHS: Failed to write 1 statuses: ")) << log_.All();
    EXPECT_THROW((void)store_->TakeBatch(), std::exception);
    other.Ask("ROLLBACK");
  }
  EXPECT_THAT(Contexts(store_->TakeBatch()), ElementsAre("/a"));
}

TEST_F(HealthStoreTest, ADeleteThatWasRefusedIsMadeGoodBeforeAnythingElseIsRead) {
  store_->Report(Manifest("/a"));
  {
    HealthStore::Batch batch = store_->TakeBatch();
    StatusTable other = Table();
    other.Ask("BEGIN EXCLUSIVE");
    batch.Delete();
    EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "AHS: Failed to delete the statuses that were sent: "));
    other.Ask("ROLLBACK");
    store_->Report(Manifest("/b"));
  }
  EXPECT_THAT(Table().Contexts(), ElementsAre("/b")) << "and what came behind stays";
  EXPECT_THAT(Contexts(store_->TakeBatch()), ElementsAre("/b"));
}

TEST_F(HealthStoreTest, WhatWasSentComesInNoOtherBatchThoughItsDeleteWasRefused) {
  store_->Report(Manifest("/a"));
  {
    HealthStore::Batch batch = store_->TakeBatch();
    StatusTable other = Table();
    other.Ask("BEGIN EXCLUSIVE");
    batch.Delete();
    other.Ask("ROLLBACK");
  }
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a")) << "nothing has come since that would have been written";
  EXPECT_THAT(Contexts(store_->TakeBatch()), IsEmpty());
  EXPECT_THAT(Table().Contexts(), IsEmpty());
}

TEST_F(HealthStoreTest, ADatabaseThatCannotBeOpenedIsTriedAgain) {
  store_.reset();
  std::filesystem::remove(folder_ / HealthStore::kFileName);
  BlockDatabase();
  store_.emplace(folder_.Path(), HealthStore::kFileName, clock_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "AHS: Failed to open the database of statuses: "));
  store_->Report(Manifest("/a"));
  UnblockDatabase();
  store_->Report(Manifest("/b"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a", "/b"));
}

TEST_F(HealthStoreTest, ATornDatabaseIsSetAside) {
  store_.reset();
  folder_.Write(HealthStore::kFileName, std::string(4096, 'x'));
  store_.emplace(folder_.Path(), HealthStore::kFileName, clock_);
  store_->Report(Manifest("/a"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
  EXPECT_TRUE(std::filesystem::exists(folder_ / "EDRStatus.db.damaged"));
}

TEST_F(HealthStoreTest, ADatabaseThatIsTornWhileItIsOpenIsSetAsideToo) {
  store_->Report(Manifest("/a"));
  folder_.Write(HealthStore::kFileName, std::string(16'384, 'x'));
  store_->Report(Manifest("/b"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "AHS: Failed to write 1 statuses: ")) << log_.All();
  store_->Report(Manifest("/c"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/b", "/c"));
}

TEST_F(HealthStoreTest, NoBatchIsTakenWhileOneIsAway) {
  store_->Report(Manifest("/a"));
  {
    const HealthStore::Batch batch = store_->TakeBatch();
    EXPECT_THROW((void)store_->TakeBatch(), std::logic_error);
  }
  EXPECT_THAT(Contexts(store_->TakeBatch()), ElementsAre("/a"));
}

TEST_F(HealthStoreTest, ATableOfALowerVersionIsMadeAnew) {
  store_.reset();
  Table().Ask(
      "DROP TABLE AgentStatus; CREATE TABLE AgentStatus (Other TEXT); INSERT INTO AgentStatus VALUES ('x'); "
      "PRAGMA user_version = 0");
  store_.emplace(folder_.Path(), HealthStore::kFileName, clock_);
  store_->Report(Manifest("/a"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
  EXPECT_THAT(Table().Ask("PRAGMA user_version"), ElementsAre("1"));
}

TEST_F(HealthStoreTest, WhatStillWaitsIsWrittenAtTheEnd) {
  StatusTable other = Table();
  other.Ask("BEGIN EXCLUSIVE");
  store_->Report(Manifest("/a"));
  other.Ask("ROLLBACK");
  store_.reset();
  EXPECT_THAT(Table().Contexts(), ElementsAre("/a"));
}

TEST_F(HealthStoreTest, ANameThatIsNoTextBecomesOne) {
  store_->Report(Manifest("/etc/\xff'; DROP TABLE AgentStatus; --"));
  EXPECT_THAT(Table().Contexts(), ElementsAre("/etc/?'; DROP TABLE AgentStatus; --"));
}

TEST_F(HealthStoreTest, TellsAnewWhenTooManyContextsAreKnown) {
  {
    const HealthStore::Batch batch = store_->TakeBatch();  // they wait, and are written at once
    for (std::size_t i = 0; i <= HealthStore::kMaxContexts; ++i) store_->Report(Manifest("/" + std::to_string(i)));
    store_->Report(Manifest("/1000"));
    store_->Report(Manifest("/0"));
  }
  EXPECT_THAT(Table().Ask("SELECT ContextId FROM AgentStatus ORDER BY rowid DESC LIMIT 3"),
              ElementsAre("/0", "/1000", "/999"))
      << "/1000 was still known";
}

TEST_F(HealthStoreTest, CountsRefusedDocumentsAndDroppedEvents) {
  store_->CountRefused(2);
  store_->CountRefused(3);
  EXPECT_EQ(store_->RefusedDocuments(), 5U);
  EXPECT_EQ(store_->DroppedEvents(), 0U);
  store_->CountDropped(7);
  store_->CountDropped(1);
  EXPECT_EQ(store_->DroppedEvents(), 8U);
}

TEST_F(HealthStoreTest, CountsRemovedFilesWithTheirBytes) {
  EXPECT_EQ(store_->RemovedFiles(), 0U);
  store_->CountRemovedFile(100);
  store_->CountRemovedFile(23);
  EXPECT_EQ(store_->RemovedFiles(), 2U);
  EXPECT_EQ(store_->RemovedBytes(), 123U);
}

TEST_F(HealthStoreTest, TakesReportsOfManyThreadsWhileBatchesComeAndGo) {
  constexpr int kThreads = 4;
  constexpr int kReports = 20;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < kReports; ++i) store_->Report(Manifest(std::to_string(thread) + "/" + std::to_string(i)));
    });
  }
  std::size_t sent = 0;
  for (int i = 0; i < 10; ++i) {
    HealthStore::Batch batch = store_->TakeBatch();
    sent += batch.records.size();
    batch.Delete();
  }
  for (std::thread& thread : threads) thread.join();
  sent += store_->TakeBatch().records.size();
  EXPECT_EQ(sent, static_cast<std::size_t>(kThreads * kReports)) << "each exactly once";
}

}  // namespace
}  // namespace zagent::health
