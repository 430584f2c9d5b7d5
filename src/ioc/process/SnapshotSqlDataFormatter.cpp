#include "src/ioc/process/SnapshotSqlDataFormatter.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/src/storage/Serializer.h"
#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

using Statements = common::SqlDataFormatter::Statements;

struct Column {
  const char* name;
  const char* type;
  [[nodiscard]] bool IsText() const { return std::string_view(type).starts_with("TEXT"); }
};

struct Table {
  const char* name;
  const char* key;
  std::vector<Column> columns;
};

// The tables of all versions, by their number.
constexpr std::array kTableTypes = {"Actor",   "ClientInformation", "Directory",   "File",
                                    "Hash",    "LoadedModule",      "Metadata",    "Network",
                                    "Process", "SecuritySettings",  "TtlProcesses"};

const std::vector<Table>& Tables() {
  static const std::vector<Table> kTables = {
      {SnapshotSqlDataFormatter::kClientInformation, "Name", {{"Name", "TEXT UNIQUE"}, {"Value", "TEXT"}}},
      {SnapshotSqlDataFormatter::kDirectory,
       "RowID",
       {{"RowID", "TEXT PRIMARY KEY"},
        {"Path", "TEXT"},
        {"CreationTime", "BIGINT"},
        {"LastWriteTime", "BIGINT"},
        {"LastAccessTime", "BIGINT"},
        {"LastChangeTime", "BIGINT"}}},
      {SnapshotSqlDataFormatter::kFile,
       "RowID",
       {{"RowID", "TEXT PRIMARY KEY"},
        {"ParentId", "TEXT"},
        {"Size", "INTEGER"},
        {"CreationTime", "BIGINT"},
        {"LastWriteTime", "BIGINT"},
        {"LastAccessTime", "BIGINT"},
        {"LastChangeTime", "BIGINT"},
        {"MD5Hash", "TEXT"},
        {"SHA1", "TEXT"},
        {"SHA256", "TEXT"}}},
      {SnapshotSqlDataFormatter::kTtlProcesses,
       "ProcessID",
       {{"ProcessID", "INTEGER PRIMARY KEY"},
        {"Arguments", "TEXT"},
        {"Auid", "INTEGER"},
        {"Children", "TEXT"},
        {"CreationTime", "BIGINT"},
        {"Cwd", "TEXT"},
        {"Euid", "INTEGER"},
        {"ImageDeviceID", "TEXT"},
        {"ImageFileAttributes", "INTEGER"},
        {"ImageFileInode", "INTEGER"},
        {"ImageFilePath", "TEXT"},
        {"ImageOwnerGid", "INTEGER"},
        {"ImageOwnerGroup", "TEXT"},
        {"ImageOwnerName", "TEXT"},
        {"ImageOwnerUid", "INTEGER"},
        {"ImageFileFSAttributes", "TEXT"},
        {"Parent", "INTEGER"},
        {"Score", "INTEGER"},
        {"SecondaryImageDeviceID", "TEXT"},
        {"SecondaryImageFileAttributes", "INTEGER"},
        {"SecondaryImageFileInode", "INTEGER"},
        {"SecondaryImageFilePath", "TEXT"},
        {"SecondaryImageOwnerGid", "INTEGER"},
        {"SecondaryImageOwnerGroup", "TEXT"},
        {"SecondaryImageOwnerName", "TEXT"},
        {"SecondaryImageOwnerUid", "INTEGER"},
        {"SecondaryImageFileFSAttributes", "TEXT"},
        {"Tags", "TEXT"},
        {"Uid", "INTEGER"}}}};
  return kTables;
}

const Table& Find(const std::string& name) {
  for (const Table& table : Tables()) {
    if (name == table.name) return table;
  }
  const auto* type = std::find(kTableTypes.begin(), kTableTypes.end(), name);
  throw common::SqlDataFormatterException(
      "SnapshotSqlDataFormatter::Select: Invalid table type: " +
      (type != kTableTypes.end() ? std::to_string(type - kTableTypes.begin()) : name));
}

std::string Bracketed(const std::string& name) {
  return "[" + name + "]";
}

std::string CreateTable(const std::string& name) {
  std::string columns;
  for (const Column& column : Find(name).columns) {
    if (!columns.empty()) columns += ", ";
    columns.append(Bracketed(column.name)).append(" ").append(column.type);
  }
  return "CREATE TABLE " + Bracketed(name) + " (" + columns + ")";
}

std::string DropTable(const std::string& name) {
  return "DROP TABLE IF EXISTS " + Bracketed(name);
}

std::string AlterTable(const std::string& name, const std::string& verb, const std::string& definition) {
  return "ALTER TABLE " + Bracketed(name) + " " + verb + " COLUMN " + definition + ";";
}

std::string InsertInformation(const std::string& name, const std::string& value) {
  return std::string("INSERT or REPLACE INTO ") + SnapshotSqlDataFormatter::kClientInformation + " VALUES (" +
         common::SqlDataFormatter::Quote(name) + ", " + common::SqlDataFormatter::Quote(value) + ")";
}

std::string SetVersion() {
  return "PRAGMA user_version = " + std::to_string(SnapshotSqlDataFormatter::kVersion);
}

std::string Where(const Table& table, const std::string& key) {
  return std::string(" WHERE ") + table.key + " = " + common::SqlDataFormatter::Quote(key) + ";";
}

// Columns are read as numbers and texts alone.
void FillEmptyColumns(const std::string& name, Statements& statements) {
  const Table& table = Find(name);
  std::string values;
  std::string empty;
  for (const Column& column : table.columns) {
    if (std::string_view(column.name) == table.key) continue;
    values.append(values.empty() ? "" : ", ").append(column.name).append(" = ifnull(").append(column.name);
    values += column.IsText() ? ", '')" : ", 0)";
    empty.append(empty.empty() ? "" : " OR ").append(column.name).append(" IS NULL");
  }
  statements.push_back("DELETE from " + name + " WHERE " + table.key + " IS NULL;");
  statements.push_back("UPDATE " + name + " SET " + values + " WHERE " + empty + ";");
}

// The digests move from a table of their own into that of the files.
void FlattenTables(Statements& statements) {
  for (const char* table : {"Actor", "Network", "LoadedModule", "SecuritySettings"}) {
    statements.push_back(DropTable(table));
  }
  for (const char* column :
       {"EventAction", "TimeStamp", "DeviceId", "Name", "Inode", "Type", "Extension", "SecuritySettings",
        "FileAttribute", "ScanQualifier", "FoundEntryDuringScan", "PayloadHash"}) {
    statements.push_back(AlterTable(SnapshotSqlDataFormatter::kFile, "DROP", column));
  }
  for (const char* column : {"[Md5Hash] TEXT", "[SHA1] TEXT", "[SHA256] TEXT"}) {
    statements.push_back(AlterTable(SnapshotSqlDataFormatter::kFile, "ADD", column));
  }
  for (const char* digest : {"MD5Hash", "SHA1", "SHA256"}) {
    std::string update = "UPDATE File SET ";
    update.append(digest).append("=(SELECT Hash.").append(digest);
    statements.push_back(update.append(" from Hash WHERE File.RowID=Hash.RowID);"));
  }
  statements.push_back(DropTable("Hash"));
  for (const char* column : {"EventAction", "TimeStamp", "Inode", "DeviceId", "SecuritySettings", "FileAttribute",
                             "ScanQualifier", "FoundEntryDuringScan", "PayloadHash"}) {
    statements.push_back(AlterTable(SnapshotSqlDataFormatter::kDirectory, "DROP", column));
  }
}

}  // namespace

std::string SnapshotSqlDataFormatter::InsertBootTime() const {
  std::int64_t boot_time = 0;
  try {
    boot_time = common::util::ReadBootTime(proc_root_);
  } catch (const std::runtime_error& error) {
    ZLOG_DEBUG(error.what());
  }
  return InsertInformation(kBootTime, std::to_string(boot_time));
}

Statements SnapshotSqlDataFormatter::Clear() {
  Statements statements;
  for (const Table& table : Tables()) statements.push_back(std::string("DELETE from ") + table.name + ";");
  return statements;
}

Statements SnapshotSqlDataFormatter::Clear(const std::string& table) {
  return {std::string("DELETE from ") + Find(table).name + ";"};
}

Statements SnapshotSqlDataFormatter::Create() {
  Statements statements;
  for (const Table& table : Tables()) statements.push_back(CreateTable(table.name));
  statements.push_back(InsertInformation(kSequenceNumber, "0"));
  statements.push_back(InsertBootTime());
  statements.push_back(SetVersion());
  return statements;
}

std::string SnapshotSqlDataFormatter::Delete(const std::string& table, const std::string& key) {
  return "DELETE from " + table + Where(Find(table), key);
}

std::string SnapshotSqlDataFormatter::DeleteBound(const std::string& table) {
  return "DELETE from " + table + " WHERE " + Find(table).key + " = ?1;";
}

SnapshotSqlDataFormatter::BoundInsert SnapshotSqlDataFormatter::InsertBound(const std::string& table) {
  BoundInsert insert;
  std::string values;
  for (const Column& column : Find(table).columns) {
    insert.columns.push_back(column.IsText() ? ColumnType::Text : ColumnType::Integer);
    values.append(values.empty() ? "?" : ", ?").append(std::to_string(insert.columns.size()));
  }
  insert.statement = "INSERT or REPLACE INTO " + table + " VALUES (" + values + ")";
  return insert;
}

std::string SnapshotSqlDataFormatter::Insert(const std::string& table, const std::string& /*key*/,
                                             const common::Bytes& row) {
  common::Serializer columns(row);
  std::string values;
  values.reserve(row.size() * 2);
  for (const Column& column : Find(table).columns) {
    if (!values.empty()) values += ", ";
    values += column.IsText() ? Quote(columns.GetString()) : std::to_string(columns.GetInteger());
  }
  return "INSERT or REPLACE INTO " + table + " VALUES (" + values + ")";
}

std::string SnapshotSqlDataFormatter::Select(const std::string& table, const std::string& key) {
  const Table& known = Find(table);
  return "SELECT * from " + table + (key.empty() ? ";" : Where(known, key));
}

// Each step goes on to the next.
Statements SnapshotSqlDataFormatter::Migrate(std::int64_t version) {
  if (version < 0) {
    throw common::SqlDataFormatterException("SnapshotSqlDataFormatter: There is no version " + std::to_string(version));
  }
  if (version >= kVersion) return {};
  Statements statements;
  if (version < 1) {
    statements.push_back(DropTable(kClientInformation));
    statements.push_back(CreateTable(kClientInformation));
    statements.push_back(InsertInformation(kSequenceNumber, "0"));
  }
  if (version < 2) FlattenTables(statements);
  if (version < 3) statements.push_back(InsertBootTime());
  if (version < 4) statements.push_back(CreateTable(kTtlProcesses));
  statements.push_back(DropTable("Process"));
  for (const Table& table : Tables()) FillEmptyColumns(table.name, statements);
  statements.push_back(SetVersion());
  return statements;
}

std::string SnapshotSqlDataFormatter::Count(const std::string& table) {
  return "SELECT count(*) from " + std::string(Find(table).name) + ";";
}

// A row that is replaced is a new one: SQLite numbers it behind all others. By "rowid" it would mean the column.
std::string SnapshotSqlDataFormatter::DeleteOldest(const std::string& table, std::int64_t count) {
  const std::string name = Find(table).name;
  return "DELETE from " + name + " WHERE _rowid_ IN (SELECT _rowid_ from " + name + " ORDER BY _rowid_ LIMIT " +
         std::to_string(count) + ");";
}

Statements SnapshotSqlDataFormatter::Check() {
  Statements statements;
  for (const Table& table : Tables()) {
    std::string is_bad;
    for (const Column& column : table.columns) {
      is_bad.append(is_bad.empty() ? "" : " OR ").append("typeof(").append(Bracketed(column.name));
      is_bad.append(column.IsText() ? ") <> 'text'" : ") <> 'integer'");
    }
    statements.push_back(std::string("SELECT '") + table.name + "' from " + table.name + " WHERE " + is_bad +
                         " LIMIT 1;");
  }
  return statements;
}

}  // namespace zagent::ioc::internal
