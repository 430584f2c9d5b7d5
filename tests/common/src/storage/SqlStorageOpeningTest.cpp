#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "common/src/storage/SqlConnection.h"
#include "common/src/storage/SqlFile.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "tests/common/src/storage/SqlStorageFixture.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FakeSqlFormatter;
using fakes::WhatOf;
using Poco::Message;
using Caching = SqlStorage::Caching;

class SqlStorageOpeningTest : public SqlStorageFixture {};

TEST_F(SqlStorageOpeningTest, EachBadArgumentHasItsText) {
  const auto open = [](const std::string& folder, const std::string& name,
                       std::unique_ptr<SqlDataFormatter> formatter) {
    return WhatOf([&] { SqlStorage(folder, name, std::move(formatter), nullptr, Caching::Off); });
  };
  EXPECT_EQ(open("", "a", std::make_unique<FakeSqlFormatter>()), "SqlStorage: 'dbFilePath' is empty");
  EXPECT_EQ(open("/", "", std::make_unique<FakeSqlFormatter>()), "SqlStorage: 'dbFileName' is empty");
  EXPECT_EQ(open("/", "a", nullptr), "SqlStorage: 'formatter' is null");
}

TEST_F(SqlStorageOpeningTest, MakesFoldersAndFileForTheOwnerAlone) {
  const mode_t old = umask(0);
  const std::string deep = folder_ / "data/edr";
  SqlStorage storage(deep + "/", kName, std::make_unique<FakeSqlFormatter>(), nullptr, Caching::Off);
  umask(old);
  EXPECT_EQ(ModeOf(folder_ / "data"), 0700U);
  EXPECT_EQ(ModeOf(deep), 0700U);
  EXPECT_EQ(ModeOf(deep + "/Test.db"), 0600U);
}

TEST_F(SqlStorageOpeningTest, TheJournalIsForTheOwnerAloneToo) {
  Open();
  Write("a", "1");
  EXPECT_EQ(ModeOf(folder_ / "Test.db-journal"), 0600U);
}

TEST_F(SqlStorageOpeningTest, AnExistingFileIsClosedToOthers) {
  Open();
  storage_.reset();
  chmod((folder_ / kName).c_str(), 0644);
  Open();
  EXPECT_EQ(ModeOf(folder_ / kName), 0600U);
}

TEST_F(SqlStorageOpeningTest, AnOlderDatabaseIsMigratedAtTheOpening) {
  Open({1, {}, {"Items"}});
  Write("a", "1");
  Open({3, {FakeSqlFormatter::CreateTable("Others"), "UPDATE Items SET Number = 7"}});
  EXPECT_EQ(Number("SELECT Number from Items"), 7);
  EXPECT_EQ(Number("PRAGMA user_version"), 3);
  EXPECT_NO_THROW(storage_->Clear("Others"));
}

TEST_F(SqlStorageOpeningTest, ANewerDatabaseIsOpenedAsItIs) {
  Open({5, {}, {"Items"}});
  Write("a", "1");
  Open({3, {"DROP TABLE Items"}, {"Items"}});
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_EQ(Number("PRAGMA user_version"), 5);
}

TEST_F(SqlStorageOpeningTest, ADatabaseWithoutAVersionQueryIsNeverMigrated) {
  Open();
  storage_->Execute("PRAGMA user_version = -1");
  Open({0, {"DROP TABLE Items"}});
  EXPECT_EQ(CountItems(), 0);
}

// Whose version nobody has written down yet.
class FormatterWithoutAVersion final : public FakeSqlFormatter {
 public:
  [[nodiscard]] std::string GetVersion() override { return "SELECT Number from Items WHERE Key = 'version'"; }
  [[nodiscard]] Statements Migrate(std::int64_t /*version*/) override { return {"DROP TABLE Items"}; }
};

TEST_F(SqlStorageOpeningTest, AVersionQueryWithoutAnAnswerLeavesTheDatabaseAsItIs) {
  Open();
  storage_.reset();
  storage_ = std::make_unique<SqlStorage>(folder_.Path(), kName, std::make_unique<FormatterWithoutAVersion>(), nullptr,
                                          Caching::Off);
  EXPECT_EQ(CountItems(), 0);
}

TEST_F(SqlStorageOpeningTest, AFailedMigrationLeavesTheDatabaseAsItWas) {
  Open({1, {}, {"Items"}});
  Write("a", "1");
  EXPECT_EQ(WhatOf([&] {
              Open({2, {"DELETE from Items", "DROP TABLE Nobody"}, {"Items"}});
            }),
            "SqlStorage: Error setting up DB: Failed to compile query");
  Open({1, {}, {"Items"}});
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageOpeningTest, AFailedCreationLeavesAFileThatTheNextOpeningTakesForNew) {
  EXPECT_EQ(WhatOf([&] {
              Open({0, {}, {"Items", "Items"}});
            }),
            "SqlStorage: Error creating DB: Failed to compile query");
  Open();
  Write("a", "1");
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageOpeningTest, AFileOfLengthZeroIsNew) {
  folder_.Write(kName, "");
  Open({2, {"DROP TABLE Nobody"}});
  EXPECT_EQ(Number("PRAGMA user_version"), 2);
  Write("a", "1");
}

TEST_F(SqlStorageOpeningTest, WhereNoFileCanBeTheOpeningSaysSo) {
  std::filesystem::create_directory(folder_ / kName);
  std::filesystem::permissions(folder_ / kName, std::filesystem::perms(0755));
  EXPECT_EQ(WhatOf([&] { Open(); }), "SqlStorage: Error opening DB: unable to open database file");
  EXPECT_EQ(std::filesystem::status(folder_ / kName).permissions(), std::filesystem::perms(0755))
      << "it is no database";
  const std::string file = folder_.Write("file", "");
  EXPECT_EQ(WhatOf([&] { SqlStorage(file, kName, std::make_unique<FakeSqlFormatter>(), nullptr, Caching::Off); }),
            "SqlStorage: Failed to create folder " + file + ": File exists (17)");
  std::filesystem::create_symlink(folder_ / "nowhere/Test.db", folder_ / "Link.db");
  EXPECT_EQ(WhatOf([&] {
              SqlStorage(folder_.Path(), "Link.db", std::make_unique<FakeSqlFormatter>(), nullptr, Caching::Off);
            }),
            "SqlStorage: Error creating DB: unable to open database file");
}

TEST_F(SqlStorageOpeningTest, AFailingVacuumIsOnlyLogged) {
  Open();
  Write("a", "1");
  const auto reader = Neighbour();
  reader->Execute("BEGIN");
  reader->Query("SELECT * from Items");
  Open();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SqlStorage: Failed to execute 'VACUUM;': database is locked"));
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_EQ(WhatOf([&] { storage_->Vacuum(); }), "Failed to execute query");
}

TEST_F(SqlStorageOpeningTest, CommitsAreSyncedToTheLastStep) {
  Open();
  EXPECT_EQ(JournalMode(), "truncate");
  EXPECT_EQ(Number("PRAGMA synchronous"), 2);
  Open();
  EXPECT_EQ(JournalMode(), "truncate");
}

TEST_F(SqlStorageOpeningTest, AFileThatIsNoDatabaseIsNotOpened) {
  folder_.Write(kName, "this is a text of somebody else, longer than the header of a database is....................");
  for (const std::int64_t version : {0, 1}) {
    EXPECT_EQ(WhatOf([&] { Open({version}); }), "SqlStorage: Error setting up DB: Failed to compile query");
  }
  EXPECT_TRUE(log_.Has("file is not a database")) << log_.All();
}

TEST_F(SqlStorageOpeningTest, TheFactorySetsAFileThatIsNoDatabaseAside) {
  const std::string text(200, 'x');
  folder_.Write(kName, text);
  OpenByFactory();
  Write("a", "1");
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_EQ(folder_.Read("Test.db.damaged"), text);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "SqlStorage: Set aside the damaged database " + (folder_ / kName) + " as " +
                                                (folder_ / "Test.db.damaged") + ": "))
      << log_.All();
}

TEST_F(SqlStorageOpeningTest, ADatabaseIsSetAsideWithItsJournal) {
  folder_.Write(kName, "database");
  folder_.Write("Test.db-journal", "journal");
  EXPECT_EQ(internal::SetSqlFileAside(folder_ / kName), folder_ / "Test.db.damaged");
  EXPECT_EQ(folder_.Read("Test.db.damaged"), "database");
  EXPECT_EQ(folder_.Read("Test.db.damaged-journal"), "journal");
  EXPECT_FALSE(Exists(kName));
  EXPECT_FALSE(Exists("Test.db-journal")) << "it would be played back into the next database";
  EXPECT_EQ(WhatOf([&] { internal::SetSqlFileAside(folder_ / kName); }),
            "SqlStorage: Failed to set aside " + (folder_ / kName) + ": No such file or directory (2)");
}

TEST_F(SqlStorageOpeningTest, ADatabaseWhoseJournalCannotBeMovedStaysWithItsJournal) {
  folder_.Write(kName, "database");
  folder_.Write("Test.db-journal", "journal");
  std::filesystem::create_directory(folder_ / "Test.db.damaged-journal");
  EXPECT_EQ(WhatOf([&] { internal::SetSqlFileAside(folder_ / kName); }),
            "SqlStorage: Failed to set aside " + (folder_ / "Test.db-journal") + ": Is a directory (21)");
  EXPECT_TRUE(Exists(kName)) << "the next start would begin a new database with the journal of the old one";
  EXPECT_EQ(folder_.Read("Test.db-journal"), "journal");
}

TEST_F(SqlStorageOpeningTest, OneDamagedDatabaseIsKeptTheLatest) {
  folder_.Write("Test.db.damaged", "earlier");
  folder_.Write("Test.db.damaged-journal", "earlier");
  const std::string text(200, 'y');
  folder_.Write(kName, text);
  OpenByFactory();
  EXPECT_EQ(folder_.Read("Test.db.damaged"), text);
  EXPECT_FALSE(Exists("Test.db.damaged-journal"));
}

TEST_F(SqlStorageOpeningTest, TheFactorySetsATornDatabaseAside) {
  Open();
  Tear();
  OpenByFactory();
  EXPECT_EQ(CountItems(), 0);
  EXPECT_TRUE(Exists("Test.db.damaged"));
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, ": a page of it is torn")) << log_.All();
}

TEST_F(SqlStorageOpeningTest, TheConstructorOnlyLogsATornPageAndRemembersIt) {
  Open();
  EXPECT_FALSE(storage_->IsDamaged());
  Tear();
  Open();
  EXPECT_TRUE(storage_->IsDamaged());
}

TEST_F(SqlStorageOpeningTest, TheFactoryLeavesAGoodDatabaseAlone) {
  OpenByFactory();
  Write("a", "1");
  OpenByFactory();
  EXPECT_EQ(TextOf("a"), "1");
  EXPECT_FALSE(Exists("Test.db.damaged"));
}

TEST_F(SqlStorageOpeningTest, TheFactoryDoesNotTakeALockOrAFailedMigrationForDamage) {
  OpenByFactory({1, {}, {"Items"}});
  Write("a", "1");
  const auto writer = Neighbour();
  writer->Execute("BEGIN EXCLUSIVE");
  EXPECT_EQ(WhatOf([&] {
              OpenByFactory({1, {}, {"Items"}});
            }),
            "SqlStorage: Error setting up DB: Failed to compile query");
  writer->Execute("END");
  EXPECT_EQ(WhatOf([&] {
              OpenByFactory({2, {"DROP TABLE Nobody"}, {"Items"}});
            }),
            "SqlStorage: Error setting up DB: Failed to compile query");
  EXPECT_FALSE(Exists("Test.db.damaged"));
  OpenByFactory({1, {}, {"Items"}});
  EXPECT_EQ(TextOf("a"), "1");
}

TEST_F(SqlStorageOpeningTest, ACreationThatWasKilledIsBegunAnew) {
  {
    // Its pages are in the file already, its first transaction was never committed. The copy is what a kill leaves.
    internal::SqlConnection killed(folder_ / "Killed.db", internal::SqlConnection::Mode::Create);
    killed.Execute("PRAGMA cache_size = 1");
    killed.Execute("BEGIN");
    killed.Execute(FakeSqlFormatter::CreateTable("Items"));
    killed.Execute("INSERT INTO Items VALUES ('a', 1, hex(zeroblob(100000)))");
    folder_.Write(kName, folder_.Read("Killed.db"));
    folder_.Write("Test.db-journal", folder_.Read("Killed.db-journal"));
  }
  ASSERT_GT(std::filesystem::file_size(folder_ / kName), 0U);
  Open({1, {"DROP TABLE Nobody"}});
  EXPECT_EQ(CountItems(), 0);
  EXPECT_EQ(Number("PRAGMA user_version"), 1);
}

}  // namespace
}  // namespace zagent::common
