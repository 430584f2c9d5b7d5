#include "src/ioc/process/SnapshotSqlDataFormatter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::ioc::internal {
namespace {

using Statements = common::SqlDataFormatter::Statements;

class SnapshotSqlDataFormatterTest : public testing::Test {
 protected:
  bool Migrates(std::int64_t version, const std::string& statement) {
    const Statements all = formatter_.Migrate(version);
    return std::find(all.begin(), all.end(), statement) != all.end();
  }

  // But for those that leave no column empty.
  Statements SchemaChanges(std::int64_t version) {
    Statements all = formatter_.Migrate(version);
    std::erase_if(all, [](const std::string& statement) { return statement.find(" IS NULL") != std::string::npos; });
    return all;
  }

  fakes::FakeProcFs proc_;
  SnapshotSqlDataFormatter formatter_{proc_.Root()};
};

TEST_F(SnapshotSqlDataFormatterTest, ANewDatabaseHasItsTablesItsRowsAndItsVersion) {
  EXPECT_EQ(
      formatter_.Create(),
      (Statements{"CREATE TABLE [ClientInformation] ([Name] TEXT UNIQUE, [Value] TEXT)",
                  "CREATE TABLE [Directory] ([RowID] TEXT PRIMARY KEY, [Path] TEXT, [CreationTime] BIGINT, "
                  "[LastWriteTime] BIGINT, [LastAccessTime] BIGINT, [LastChangeTime] BIGINT)",
                  "CREATE TABLE [File] ([RowID] TEXT PRIMARY KEY, [ParentId] TEXT, [Size] INTEGER, [CreationTime] "
                  "BIGINT, [LastWriteTime] BIGINT, [LastAccessTime] BIGINT, [LastChangeTime] BIGINT, [MD5Hash] TEXT, "
                  "[SHA1] TEXT, [SHA256] TEXT)",
                  "CREATE TABLE [TtlProcesses] ([ProcessID] INTEGER PRIMARY KEY, [Arguments] TEXT, [Auid] INTEGER, "
                  "[Children] TEXT, [CreationTime] BIGINT, [Cwd] TEXT, [Euid] INTEGER, [ImageDeviceID] TEXT, "
                  "[ImageFileAttributes] INTEGER, [ImageFileInode] INTEGER, [ImageFilePath] TEXT, [ImageOwnerGid] "
                  "INTEGER, [ImageOwnerGroup] TEXT, [ImageOwnerName] TEXT, [ImageOwnerUid] INTEGER, "
                  "[ImageFileFSAttributes] TEXT, [Parent] INTEGER, [Score] INTEGER, [SecondaryImageDeviceID] TEXT, "
                  "[SecondaryImageFileAttributes] INTEGER, [SecondaryImageFileInode] INTEGER, "
                  "[SecondaryImageFilePath] TEXT, [SecondaryImageOwnerGid] INTEGER, [SecondaryImageOwnerGroup] TEXT, "
                  "[SecondaryImageOwnerName] TEXT, [SecondaryImageOwnerUid] INTEGER, "
                  "[SecondaryImageFileFSAttributes] TEXT, [Tags] TEXT, [Uid] INTEGER)",
                  "INSERT or REPLACE INTO ClientInformation VALUES ('SequenceNumber', '0')",
                  "INSERT or REPLACE INTO ClientInformation VALUES ('BootTime', '1600000000')",
                  "PRAGMA user_version = 5"}));
}

TEST_F(SnapshotSqlDataFormatterTest, AMachineThatDoesNotSayWhenItWasStartedHasTheBootTime0) {
  SnapshotSqlDataFormatter formatter(proc_.Root() + "/none");
  const Statements all = formatter.Create();
  EXPECT_EQ(all[all.size() - 2], "INSERT or REPLACE INTO ClientInformation VALUES ('BootTime', '0')");
}

TEST_F(SnapshotSqlDataFormatterTest, EachTableHasItsKey) {
  EXPECT_EQ(formatter_.Select("ClientInformation", "BootTime"),
            "SELECT * from ClientInformation WHERE Name = 'BootTime';");
  EXPECT_EQ(formatter_.Select("File", "a"), "SELECT * from File WHERE RowID = 'a';");
  EXPECT_EQ(formatter_.Select("Directory", "a"), "SELECT * from Directory WHERE RowID = 'a';");
  EXPECT_EQ(formatter_.Select("TtlProcesses", "7"), "SELECT * from TtlProcesses WHERE ProcessID = '7';");
  EXPECT_EQ(formatter_.Delete("ClientInformation", "BootTime"),
            "DELETE from ClientInformation WHERE Name = 'BootTime';");
  EXPECT_EQ(formatter_.Delete("File", "a"), "DELETE from File WHERE RowID = 'a';");
  EXPECT_EQ(formatter_.Delete("Directory", "a"), "DELETE from Directory WHERE RowID = 'a';");
  EXPECT_EQ(formatter_.Delete("TtlProcesses", "7"), "DELETE from TtlProcesses WHERE ProcessID = '7';");
}

TEST_F(SnapshotSqlDataFormatterTest, WithoutAKeyAllRowsAreMeant) {
  EXPECT_EQ(formatter_.Select("TtlProcesses", ""), "SELECT * from TtlProcesses;");
  EXPECT_EQ(formatter_.Clear("File"), Statements{"DELETE from File;"});
  EXPECT_EQ(formatter_.Clear(), (Statements{"DELETE from ClientInformation;", "DELETE from Directory;",
                                            "DELETE from File;", "DELETE from TtlProcesses;"}));
}

TEST_F(SnapshotSqlDataFormatterTest, AKeyIsALiteral) {
  EXPECT_EQ(formatter_.Select("File", "a'; DROP TABLE File;--"),
            "SELECT * from File WHERE RowID = 'a''; DROP TABLE File;--';");
  EXPECT_EQ(formatter_.Delete("File", "a'b"), "DELETE from File WHERE RowID = 'a''b';");
}

TEST_F(SnapshotSqlDataFormatterTest, ARowIsInsertedWithItsTextsAsLiterals) {
  models::SnapshotDBDirectory folder;
  folder.row_id = "id";
  folder.path = "/tmp/it's";
  folder.creation_time = -1;
  folder.last_write_time = 2;
  EXPECT_EQ(formatter_.Insert("Directory", "id", folder.ToRow()),
            "INSERT or REPLACE INTO Directory VALUES ('id', '/tmp/it''s', -1, 2, 0, 0)");
  common::Bytes row;
  common::Serializer::Put(row, std::string("SequenceNumber"));
  common::Serializer::Put(row, std::string("7"));
  EXPECT_EQ(formatter_.Insert("ClientInformation", "SequenceNumber", row),
            "INSERT or REPLACE INTO ClientInformation VALUES ('SequenceNumber', '7')");
}

TEST_F(SnapshotSqlDataFormatterTest, ARowThatIsCutShortIsNotInserted) {
  common::Bytes row = models::SnapshotDBFile().ToRow();
  row.pop_back();
  EXPECT_EQ(fakes::WhatOf<std::out_of_range>([&] { static_cast<void>(formatter_.Insert("File", "a", row)); }),
            "Serializer: Insufficient bytes to get data");
  common::Bytes folder = models::SnapshotDBDirectory().ToRow();
  folder[0] = 99;
  EXPECT_EQ(fakes::WhatOf<std::out_of_range>([&] { static_cast<void>(formatter_.Insert("Directory", "a", folder)); }),
            "Serializer: Insufficient bytes to get string");
}

TEST_F(SnapshotSqlDataFormatterTest, ManyRowsAreDeletedByOneStatement) {
  EXPECT_EQ(formatter_.DeleteBound("File"), "DELETE from File WHERE RowID = ?1;");
  EXPECT_EQ(formatter_.DeleteBound("ClientInformation"), "DELETE from ClientInformation WHERE Name = ?1;");
}

TEST_F(SnapshotSqlDataFormatterTest, ManyRowsAreInsertedByOneStatement) {
  using Type = common::SqlDataFormatter::ColumnType;
  const auto folders = formatter_.InsertBound("Directory");
  EXPECT_EQ(folders.statement, "INSERT or REPLACE INTO Directory VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  EXPECT_EQ(folders.columns,
            (std::vector{Type::Text, Type::Text, Type::Integer, Type::Integer, Type::Integer, Type::Integer}));
  EXPECT_EQ(formatter_.InsertBound("TtlProcesses").columns.size(), 29U);
  EXPECT_EQ(formatter_.InsertBound("TtlProcesses").columns.front(), Type::Integer);
}

TEST_F(SnapshotSqlDataFormatterTest, ATableOfOlderVersionsIsKnownByItsNumberAlone) {
  const std::string text = "SnapshotSqlDataFormatter::Select: Invalid table type: ";
  const auto select = [&](const std::string& table) {
    return fakes::WhatOf<common::SqlDataFormatterException>([&] { static_cast<void>(formatter_.Select(table, "")); });
  };
  EXPECT_EQ(select("Actor"), text + "0");
  EXPECT_EQ(select("Hash"), text + "4");
  EXPECT_EQ(select("SecuritySettings"), text + "9");
  EXPECT_EQ(select("File; DROP"), text + "File; DROP");
  EXPECT_THROW(static_cast<void>(formatter_.Clear("Hash")), common::SqlDataFormatterException);
  EXPECT_THROW(static_cast<void>(formatter_.Delete("Hash", "a")), common::SqlDataFormatterException);
  EXPECT_THROW(static_cast<void>(formatter_.Insert("Hash", "a", {})), common::SqlDataFormatterException);
}

TEST_F(SnapshotSqlDataFormatterTest, ThePresentVersionAndNewerOnesAreNotMigrated) {
  EXPECT_TRUE(formatter_.Migrate(5).empty());
  EXPECT_TRUE(formatter_.Migrate(6).empty());
  EXPECT_EQ(formatter_.GetVersion(), "PRAGMA user_version");
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion4LosesItsProcessesOnly) {
  EXPECT_EQ(SchemaChanges(4), (Statements{"DROP TABLE IF EXISTS [Process]", "PRAGMA user_version = 5"}));
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion3GetsTheTreeAndLosesItsProcesses) {
  const Statements all = SchemaChanges(3);
  ASSERT_EQ(all.size(), 3U);
  EXPECT_TRUE(all[0].starts_with("CREATE TABLE [TtlProcesses] ("));
  EXPECT_EQ(all[1], "DROP TABLE IF EXISTS [Process]");
  EXPECT_EQ(all[2], "PRAGMA user_version = 5");
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion2GetsTheBootTimeAsWell) {
  const Statements all = SchemaChanges(2);
  ASSERT_EQ(all.size(), 4U);
  EXPECT_EQ(all[0], "INSERT or REPLACE INTO ClientInformation VALUES ('BootTime', '1600000000')");
}

TEST_F(SnapshotSqlDataFormatterTest, NoOlderVersionKeepsAnEmptyColumn) {
  for (const std::int64_t version : {0, 1, 2, 3, 4}) {
    EXPECT_TRUE(Migrates(version, "DELETE from ClientInformation WHERE Name IS NULL;"));
    EXPECT_TRUE(Migrates(version, "UPDATE ClientInformation SET Value = ifnull(Value, '') WHERE Value IS NULL;"));
    const Statements all = formatter_.Migrate(version);
    EXPECT_TRUE(all[all.size() - 2].starts_with("UPDATE TtlProcesses SET Arguments = ifnull(Arguments, ''), Auid = "));
  }
}

TEST_F(SnapshotSqlDataFormatterTest, TheOldestRowsAreThoseWithTheLowestNumbersOfSqlite) {
  EXPECT_EQ(SnapshotSqlDataFormatter::Count("File"), "SELECT count(*) from File;");
  EXPECT_EQ(SnapshotSqlDataFormatter::DeleteOldest("Directory", 7),
            "DELETE from Directory WHERE _rowid_ IN (SELECT _rowid_ from Directory ORDER BY _rowid_ LIMIT 7);");
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion1MovesTheDigestsIntoTheFiles) {
  EXPECT_TRUE(Migrates(1, "DROP TABLE IF EXISTS [Actor]"));
  EXPECT_TRUE(Migrates(1, "ALTER TABLE [File] DROP COLUMN EventAction;"));
  EXPECT_TRUE(Migrates(1, "ALTER TABLE [File] ADD COLUMN [Md5Hash] TEXT;"));
  EXPECT_TRUE(Migrates(1, "UPDATE File SET MD5Hash=(SELECT Hash.MD5Hash from Hash WHERE File.RowID=Hash.RowID);"));
  EXPECT_TRUE(Migrates(1, "UPDATE File SET SHA1=(SELECT Hash.SHA1 from Hash WHERE File.RowID=Hash.RowID);"));
  EXPECT_TRUE(Migrates(1, "UPDATE File SET SHA256=(SELECT Hash.SHA256 from Hash WHERE File.RowID=Hash.RowID);"));
  EXPECT_TRUE(Migrates(1, "DROP TABLE IF EXISTS [Hash]"));
  EXPECT_TRUE(Migrates(1, "ALTER TABLE [Directory] DROP COLUMN PayloadHash;"));
  EXPECT_FALSE(Migrates(1, "DROP TABLE IF EXISTS [ClientInformation]"));
}

TEST_F(SnapshotSqlDataFormatterTest, AVersion0BeginsWithTheSequenceNumber) {
  const Statements all = formatter_.Migrate(0);
  ASSERT_GE(all.size(), 3U);
  EXPECT_EQ(all[0], "DROP TABLE IF EXISTS [ClientInformation]");
  EXPECT_EQ(all[1], "CREATE TABLE [ClientInformation] ([Name] TEXT UNIQUE, [Value] TEXT)");
  EXPECT_EQ(all[2], "INSERT or REPLACE INTO ClientInformation VALUES ('SequenceNumber', '0')");
  EXPECT_EQ(all.size(), formatter_.Migrate(1).size() + 3);
}

TEST_F(SnapshotSqlDataFormatterTest, AVersionBelow0IsNone) {
  EXPECT_EQ(fakes::WhatOf<common::SqlDataFormatterException>([&] { static_cast<void>(formatter_.Migrate(-1)); }),
            "SnapshotSqlDataFormatter: There is no version -1");
}

}  // namespace
}  // namespace zagent::ioc::internal
