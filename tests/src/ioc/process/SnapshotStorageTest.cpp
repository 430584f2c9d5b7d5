#include "src/ioc/process/SnapshotStorage.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlConnection.h"
#include "common/src/storage/SqlException.h"
#include "common/src/util/Digest.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotDBTtlProcess.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::ioc::internal {
namespace {

using common::Serializer;
using models::SnapshotDBDirectory;
using models::SnapshotDBFile;
using Statements = std::vector<std::string>;

std::string Quote(const std::string& text) {
  return common::SqlDataFormatter::Quote(text);
}

// Names that somebody has given to his files, to hide or to do harm.
const std::vector<std::string>& HostileNames() {
  static const std::vector<std::string> kNames = {
      "/tmp/plain",      "/tmp/it's", "/tmp/'; DROP TABLE File;--", "/tmp/two\nlines", "/tmp/\xff\xfe",
      "/tmp/\"quoted\"", ""};
  return kNames;
}

// An older version bound its texts, so that a row of it may hold whatever SQLite does.
std::vector<std::string> OldNames() {
  std::vector<std::string> names = HostileNames();
  names.emplace_back("/a'b\0\nc", 7);
  return names;
}

std::string Literal(std::string_view text) {
  return "CAST(x'" + common::util::ToHex(text) + "' AS TEXT)";
}

models::SnapshotDBTtlProcess::Image OldImage(const std::string& path, std::uint64_t inode) {
  models::SnapshotDBTtlProcess::Image image;
  image.device_id = "08:01";
  image.file_attributes = 0755;
  image.file_inode = inode;
  image.file_path = path;
  image.owner_gid = 5;
  image.owner_group = "two\nlines";
  image.owner_name = "o'wner";
  image.owner_uid = 6;
  image.file_fs_attributes = "executable";
  return image;
}

// A process that version 4 has saved, with no column empty.
models::SnapshotDBTtlProcess OldProcess() {
  models::SnapshotDBTtlProcess process;
  process.process_id = 1;
  process.arguments = HostileNames();
  process.auid = 4294967295;
  process.children = {2, 3};
  process.creation_time = 1'700'000'000'123'456'789;
  process.cwd = OldNames().back();
  process.euid = 1000;
  process.image = OldImage("/tmp/it's", 12);
  process.parent = 4;
  process.score = -7;
  process.secondary_image = OldImage("/tmp/\xff\xfe", 13);
  process.tags = {{"Reported", ""}, {"it's=:%", "two\nlines"}};
  process.uid = 1001;
  return process;
}

class SnapshotStorageTest : public testing::Test {
 protected:
  std::unique_ptr<common::SqlStorage> Open() { return OpenSnapshotStorage(folder_.Path(), nullptr, proc_.Root()); }
  [[nodiscard]] std::string Database() const { return folder_ / kSnapshotName; }
  [[nodiscard]] bool IsSetAside() const { return std::filesystem::exists(Database() + ".damaged"); }

  void Leave(const Statements& statements) {
    common::internal::SqlConnection connection(Database(), common::internal::SqlConnection::Mode::Create);
    connection.ExecuteAll(statements);
  }
  // A database as a version has left it, with a row for each hostile name in every table.
  Statements OldTables(int version);
  static void AddOldFiles(Statements& all, bool is_flat);
  static void AddOldFolders(Statements& all, bool is_flat);

  static std::vector<std::string> TableNames(common::SqlStorage& storage) {
    std::vector<std::string> names;
    auto rows = storage.Query("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
    for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) names.push_back(Serializer(row).GetString());
    return names;
  }
  static std::int64_t Version(common::SqlStorage& storage) {
    const common::Bytes row = storage.Query("PRAGMA user_version").Next();
    return Serializer(row).GetInteger();
  }
  // By key.
  template <typename Model>
  static std::map<std::string, Model> ReadAll(common::SqlStorage& storage, const std::string& table) {
    std::map<std::string, Model> models;
    auto rows = storage.ReadAll(table);
    for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) {
      Model model(row);
      models.emplace(model.row_id, std::move(model));
    }
    return models;
  }
  static std::string Information(common::SqlStorage& storage, const std::string& name) {
    const common::Bytes row = storage.Read("ClientInformation", name);
    if (row.empty()) return "none";
    Serializer columns(row);
    EXPECT_EQ(columns.GetString(), name);
    return columns.GetString();
  }
  void ExpectOldRows(common::SqlStorage& storage);

  fakes::TempFolder folder_;
  fakes::FakeProcFs proc_;
  fakes::LogCapture log_;
};

// The rows of an older version carry what is dropped, and every other file has digests.
void SnapshotStorageTest::AddOldFiles(Statements& all, bool is_flat) {
  int n = 0;
  for (const std::string& name : OldNames()) {
    const std::string id = std::to_string(++n);
    const bool is_hashed = n % 2 == 0;
    const std::string common = Literal("p" + name) + ", 10" + id + ", 1, 2, 3, 4";
    if (is_flat) {
      const std::string hash = is_hashed ? Literal("m" + name) + ", 's1', 's256'" : "'', '', ''";
      all.push_back("INSERT INTO File VALUES (" + Literal(id + name) + ", " + common + ", " + hash + ")");
      continue;
    }
    all.push_back("INSERT INTO File VALUES (" + Literal(id + name) + ", 7, 8, 'dev', " + Literal(name) + ", " + common +
                  ", 99, 1, 'ext', 'sec', 5, 6, 7, 'payload')");
    if (is_hashed) {
      all.push_back("INSERT INTO Hash VALUES (" + Literal(id + name) + ", " + Literal("m" + name) + ", 's1', 's256')");
    }
  }
}

void SnapshotStorageTest::AddOldFolders(Statements& all, bool is_flat) {
  int n = 0;
  for (const std::string& name : OldNames()) {
    const std::string id = Literal(std::to_string(++n) + name);
    all.push_back(is_flat ? "INSERT INTO Directory VALUES (" + id + ", " + Literal(name) + ", 1, 2, 3, 4)"
                          : "INSERT INTO Directory VALUES (" + id + ", 7, 8, " + Literal(name) +
                                ", 9, 'dev', 1, 2, 3, 4, 'sec', 5, 6, 7, 'payload')");
  }
}

Statements SnapshotStorageTest::OldTables(int version) {
  Statements all;
  all.emplace_back("CREATE TABLE [Process] ([RowID] TEXT PRIMARY KEY, [Name] TEXT)");
  all.push_back("INSERT INTO Process VALUES ('1', " + Quote("it's\n") + ")");
  if (version < 2) {
    for (const char* table : {"Actor", "Network", "LoadedModule", "SecuritySettings"}) {
      all.push_back(std::string("CREATE TABLE [") + table + "] ([RowID] TEXT PRIMARY KEY, [Value] TEXT)");
      all.push_back(std::string("INSERT INTO ") + table + " VALUES ('1', NULL)");
    }
    all.emplace_back("CREATE TABLE [Hash] ([RowID] TEXT PRIMARY KEY, [MD5Hash] TEXT, [SHA1] TEXT, [SHA256] TEXT)");
    all.emplace_back(
        "CREATE TABLE [File] ([RowID] TEXT PRIMARY KEY, [EventAction] INTEGER, [TimeStamp] BIGINT, [DeviceId] TEXT, "
        "[Name] TEXT, [ParentId] TEXT, [Size] INTEGER, [CreationTime] BIGINT, [LastWriteTime] BIGINT, "
        "[LastAccessTime] BIGINT, [LastChangeTime] BIGINT, [Inode] BIGINT, [Type] INTEGER, [Extension] TEXT, "
        "[SecuritySettings] TEXT, [FileAttribute] INTEGER, [ScanQualifier] INTEGER, [FoundEntryDuringScan] INTEGER, "
        "[PayloadHash] TEXT)");
    all.emplace_back(
        "CREATE TABLE [Directory] ([RowID] TEXT PRIMARY KEY, [EventAction] INTEGER, [TimeStamp] BIGINT, [Path] TEXT, "
        "[Inode] BIGINT, [DeviceId] TEXT, [CreationTime] BIGINT, [LastWriteTime] BIGINT, [LastAccessTime] BIGINT, "
        "[LastChangeTime] BIGINT, [SecuritySettings] TEXT, [FileAttribute] INTEGER, [ScanQualifier] INTEGER, "
        "[FoundEntryDuringScan] INTEGER, [PayloadHash] TEXT)");
  } else {
    all.emplace_back(
        "CREATE TABLE [File] ([RowID] TEXT PRIMARY KEY, [ParentId] TEXT, [Size] INTEGER, [CreationTime] BIGINT, "
        "[LastWriteTime] BIGINT, [LastAccessTime] BIGINT, [LastChangeTime] BIGINT, [Md5Hash] TEXT, [SHA1] TEXT, "
        "[SHA256] TEXT)");
    all.emplace_back(
        "CREATE TABLE [Directory] ([RowID] TEXT PRIMARY KEY, [Path] TEXT, [CreationTime] BIGINT, [LastWriteTime] "
        "BIGINT, [LastAccessTime] BIGINT, [LastChangeTime] BIGINT)");
  }
  AddOldFiles(all, version >= 2);
  AddOldFolders(all, version >= 2);
  all.emplace_back("CREATE TABLE [ClientInformation] ([Name] TEXT UNIQUE, [Value] TEXT)");
  all.emplace_back("INSERT INTO ClientInformation VALUES ('SequenceNumber', '4711')");
  if (version >= 3) all.emplace_back("INSERT INTO ClientInformation VALUES ('BootTime', '1234')");
  if (version >= 4) {
    SnapshotSqlDataFormatter formatter(proc_.Root());
    all.push_back(formatter.Create()[3]);
    const models::SnapshotDBTtlProcess process = OldProcess();
    all.push_back(formatter.Insert("TtlProcesses", "1", process.ToRow()));
    all.push_back("UPDATE TtlProcesses SET Cwd = " + Literal(process.cwd));
  }
  all.push_back("PRAGMA user_version = " + std::to_string(version));
  return all;
}

void SnapshotStorageTest::ExpectOldRows(common::SqlStorage& storage) {
  std::map<std::string, SnapshotDBFile> files;
  std::map<std::string, SnapshotDBDirectory> folders;
  int n = 0;
  for (const std::string& name : OldNames()) {
    const std::string id = std::to_string(++n);
    SnapshotDBFile file;
    file.row_id = id + name;
    file.parent_id = "p" + name;
    file.size = std::stoll("10" + id);
    file.creation_time = 1;
    file.last_write_time = 2;
    file.last_access_time = 3;
    file.last_change_time = 4;
    if (n % 2 == 0) {
      file.md5 = "m" + name;
      file.sha1 = "s1";
      file.sha256 = "s256";
    }
    files.emplace(file.row_id, file);
    SnapshotDBDirectory folder;
    folder.row_id = id + name;
    folder.path = name;
    folder.creation_time = 1;
    folder.last_write_time = 2;
    folder.last_access_time = 3;
    folder.last_change_time = 4;
    folders.emplace(folder.row_id, folder);
  }
  EXPECT_EQ(ReadAll<SnapshotDBFile>(storage, "File"), files);
  EXPECT_EQ(ReadAll<SnapshotDBDirectory>(storage, "Directory"), folders);
}

TEST_F(SnapshotStorageTest, ANewDatabaseHasAllTablesAndBothRows) {
  const auto storage = Open();
  EXPECT_EQ(TableNames(*storage), (Statements{"ClientInformation", "Directory", "File", "TtlProcesses"}));
  EXPECT_EQ(Information(*storage, "SequenceNumber"), "0");
  EXPECT_EQ(Information(*storage, "BootTime"), "1600000000");
  EXPECT_EQ(Version(*storage), 5);
  EXPECT_FALSE(IsSetAside());
}

TEST_F(SnapshotStorageTest, WhatWasWrittenIsThereAtTheNextStart) {
  SnapshotDBFile file;
  file.row_id = "id";
  file.parent_id = "parent";
  {
    const auto storage = Open();
    storage->Write("File", file.row_id, file.ToRow());
    storage->Write("ClientInformation", "SequenceNumber",
                   storage->MakeRow(std::string("SequenceNumber"), std::string("17")));
  }
  const auto storage = Open();
  EXPECT_EQ(SnapshotDBFile(storage->Read("File", "id")), file);
  EXPECT_EQ(Information(*storage, "SequenceNumber"), "17");
  EXPECT_FALSE(IsSetAside());
}

TEST_F(SnapshotStorageTest, HostileNamesComeBackAsTheyWere) {
  const auto storage = Open();
  for (const std::string& name : HostileNames()) {
    SnapshotDBDirectory folder;
    folder.row_id = "id" + name;
    folder.path = name;
    storage->Write("Directory", folder.row_id, folder.ToRow());
    const auto read = storage->ReadAll("Directory").Next();
    EXPECT_EQ(SnapshotDBDirectory(read), folder);
    storage->Delete("Directory", folder.row_id);
    EXPECT_TRUE(storage->ReadAll("Directory").Next().empty());
  }
}

TEST_F(SnapshotStorageTest, AllOlderVersionsKeepTheirRows) {
  for (int version = 0; version < 5; ++version) {
    SCOPED_TRACE(version);
    std::filesystem::remove(Database());
    Leave(OldTables(version));
    const auto storage = Open();
    ExpectOldRows(*storage);
    EXPECT_EQ(TableNames(*storage), (Statements{"ClientInformation", "Directory", "File", "TtlProcesses"}));
    EXPECT_EQ(Information(*storage, "SequenceNumber"), version == 0 ? "0" : "4711");
    EXPECT_EQ(Information(*storage, "BootTime"), version < 3 ? "1600000000" : "1234");
    EXPECT_EQ(Version(*storage), 5);
    const common::Bytes process = storage->Read("TtlProcesses", "1");
    ASSERT_EQ(process.empty(), version < 4);
    if (version == 4) {
      EXPECT_EQ(models::SnapshotDBTtlProcess(process), OldProcess());
    }
    EXPECT_FALSE(IsSetAside()) << log_.All();
  }
}

TEST_F(SnapshotStorageTest, AMigratedDatabaseTakesRowsLikeANewOne) {
  Leave(OldTables(0));
  const auto storage = Open();
  SnapshotDBFile file;
  file.row_id = "new";
  file.size = 5;
  file.sha256 = "abc";
  storage->Write("File", "new", file.ToRow());
  EXPECT_EQ(ReadAll<SnapshotDBFile>(*storage, "File").at("new"), file);
}

TEST_F(SnapshotStorageTest, NoColumnIsNullAfterTheMigration) {
  Statements all = OldTables(1);
  all.emplace_back(
      "INSERT INTO File VALUES ('empty', NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, "
      "NULL, NULL, NULL, NULL, NULL, NULL)");
  all.emplace_back("INSERT INTO Hash VALUES ('empty', NULL, 's1', NULL)");
  all.emplace_back("INSERT INTO File (Name) VALUES ('without a key')");
  all.emplace_back(
      "INSERT INTO Directory VALUES ('empty', NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, "
      "NULL, NULL)");
  all.emplace_back("INSERT INTO Directory (Path) VALUES ('without a key')");
  Leave(all);
  const auto storage = Open();
  const auto files = ReadAll<SnapshotDBFile>(*storage, "File");
  EXPECT_EQ(files.size(), OldNames().size() + 1);
  SnapshotDBFile file;
  file.row_id = "empty";
  file.sha1 = "s1";
  EXPECT_EQ(files.at("empty"), file);
  const auto folders = ReadAll<SnapshotDBDirectory>(*storage, "Directory");
  EXPECT_EQ(folders.size(), OldNames().size() + 1);
  SnapshotDBDirectory folder;
  folder.row_id = "empty";
  EXPECT_EQ(folders.at("empty"), folder);
}

TEST_F(SnapshotStorageTest, AnEmptyColumnOfAFlatVersionIsFilledToo) {
  for (int version = 2; version < 5; ++version) {
    SCOPED_TRACE(version);
    std::filesystem::remove(Database());
    Statements all = OldTables(version);
    all.emplace_back("INSERT INTO File (RowID) VALUES ('empty')");
    all.emplace_back("INSERT INTO File (ParentId) VALUES ('without a key')");
    all.emplace_back("INSERT INTO Directory (RowID, CreationTime) VALUES ('empty', 5)");
    all.emplace_back("INSERT INTO ClientInformation (Name) VALUES ('empty')");
    if (version == 4) all.emplace_back("INSERT INTO TtlProcesses (ProcessID, Tags) VALUES (7, 'a=b')");
    Leave(all);
    const auto storage = Open();
    EXPECT_FALSE(IsSetAside()) << log_.All();
    SnapshotDBFile file;
    file.row_id = "empty";
    const auto files = ReadAll<SnapshotDBFile>(*storage, "File");
    EXPECT_EQ(files.size(), OldNames().size() + 1);
    EXPECT_EQ(files.at("empty"), file);
    SnapshotDBDirectory folder;
    folder.row_id = "empty";
    folder.creation_time = 5;
    EXPECT_EQ(ReadAll<SnapshotDBDirectory>(*storage, "Directory").at("empty"), folder);
    EXPECT_EQ(Information(*storage, "empty"), "");
    if (version < 4) continue;
    models::SnapshotDBTtlProcess process;
    process.process_id = 7;
    process.tags = {{"a", "b"}};
    EXPECT_EQ(models::SnapshotDBTtlProcess(storage->Read("TtlProcesses", "7")), process);
  }
}

TEST_F(SnapshotStorageTest, ANewerDatabaseIsLeftAsItIs) {
  { Open(); }
  Leave({"PRAGMA user_version = 9", "CREATE TABLE [Later] ([Key] TEXT)"});
  const auto storage = Open();
  EXPECT_EQ(Version(*storage), 9);
  EXPECT_FALSE(IsSetAside());
}

void ExpectNew(const std::unique_ptr<common::SqlStorage>& storage) {
  const common::Bytes version = storage->Query("PRAGMA user_version").Next();
  EXPECT_EQ(Serializer(version).GetInteger(), 5);
  EXPECT_TRUE(storage->ReadAll("File").Next().empty());
}

TEST_F(SnapshotStorageTest, ADatabaseThatCannotBeMigratedIsSetAside) {
  Leave({"CREATE TABLE [File] ([RowID] TEXT PRIMARY KEY)", "INSERT INTO File VALUES ('a')"});
  ExpectNew(Open());
  EXPECT_TRUE(IsSetAside());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: Set aside the database " + Database() + " as " + Database() +
                                                      ".damaged and made a new one: SqlStorage: Error setting up DB: "))
      << log_.All();
  Open();
  EXPECT_EQ(log_.Count("Set aside"), 1);
}

TEST_F(SnapshotStorageTest, ADatabaseOfNoVersionIsSetAside) {
  { Open(); }
  Leave({"PRAGMA user_version = -3"});
  ExpectNew(Open());
  EXPECT_TRUE(IsSetAside());
}

TEST_F(SnapshotStorageTest, ADatabaseWithOtherTablesThanItSaysIsSetAside) {
  for (const std::string table : {"ClientInformation", "Directory", "File", "TtlProcesses"}) {
    SCOPED_TRACE(table);
    std::filesystem::remove(Database() + ".damaged");
    { Open(); }
    Leave({"DROP TABLE " + table, "CREATE TABLE " + table + " ([RowID] TEXT)"});
    ExpectNew(Open());
    EXPECT_TRUE(IsSetAside());
  }
}

TEST_F(SnapshotStorageTest, ADatabaseWithAProcessThatCannotBeReadIsSetAside) {
  { Open(); }
  Leave({"INSERT INTO TtlProcesses (ProcessID) VALUES (7)"});  // the rest is NULL
  ExpectNew(Open());
  EXPECT_TRUE(IsSetAside());
}

TEST_F(SnapshotStorageTest, ADatabaseWithARowThatCannotBeReadIsSetAside) {
  for (const std::string row :
       {"File (RowID) VALUES ('later')", "Directory (RowID, Path) VALUES ('later', x'00')",
        "ClientInformation (Name) VALUES ('later')", "File VALUES ('later', '', 'many', 0, 0, 0, 0, '', '', '')"}) {
    SCOPED_TRACE(row);
    std::filesystem::remove(Database() + ".damaged");
    {
      const auto storage = Open();
      storage->Write("File", "first", [] {
        SnapshotDBFile file;
        file.row_id = "first";
        return file.ToRow();
      }());
    }
    Leave({"INSERT INTO " + row});
    ExpectNew(Open());
    EXPECT_TRUE(IsSetAside());
    EXPECT_TRUE(log_.Has("made a new one: A row of " + row.substr(0, row.find(' ')) + " cannot be read")) << log_.All();
  }
}

TEST_F(SnapshotStorageTest, AFileThatIsNoDatabaseIsSetAside) {
  folder_.Write(kSnapshotName, std::string(8'192, 'x'));
  ExpectNew(Open());
  EXPECT_TRUE(IsSetAside());
}

TEST_F(SnapshotStorageTest, ATornDatabaseIsSetAside) {
  {
    const auto storage = Open();
    SnapshotDBFile file;
    for (int i = 0; i < 500; ++i) {
      file.row_id = std::to_string(i);
      file.parent_id = std::string(200, 'x');
      storage->Write("File", file.row_id, file.ToRow());
    }
  }
  const auto size = std::filesystem::file_size(Database());
  std::fstream file(Database(), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(4'096);
  file << std::string(size - 4'096, '\xA5');
  file.close();
  ExpectNew(Open());
  EXPECT_TRUE(IsSetAside());
}

TEST_F(SnapshotStorageTest, ALockedDatabaseIsLeftAsItIs) {
  Leave(OldTables(1));
  common::internal::SqlConnection other(Database(), common::internal::SqlConnection::Mode::Existing);
  other.Execute("BEGIN EXCLUSIVE");
  EXPECT_THROW(Open(), common::SqlException);
  other.Execute("ROLLBACK");
  EXPECT_FALSE(IsSetAside());
  ExpectOldRows(*Open());
}

TEST_F(SnapshotStorageTest, AFolderThatCannotBeMadeIsTold) {
  folder_.Write("file", "");
  EXPECT_THROW(OpenSnapshotStorage(folder_ / "file/edr", nullptr, proc_.Root()), common::StorageException);
}

}  // namespace
}  // namespace zagent::ioc::internal
