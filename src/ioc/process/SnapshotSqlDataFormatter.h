#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/SqlDataFormatter.h"

namespace zagent::ioc::internal {

// The snapshot's database: what must outlive a restart. Its tables have a row
//
//   ClientInformation  a name: the last sequence number and the boot time that was told last, both as decimal text
//   Directory, File    an object that was reported (models::SnapshotDBDirectory, models::SnapshotDBFile)
//   TtlProcesses       a process of the tree, while nobody runs that has it in memory (models::SnapshotDBTtlProcess)
//
// Older versions had more tables; they are known by name for the sake of the migration.
class SnapshotSqlDataFormatter final : public common::SqlDataFormatter {
 public:
  static constexpr std::int64_t kVersion = 5;
  static constexpr const char* kClientInformation = "ClientInformation";
  static constexpr const char* kDirectory = "Directory";
  static constexpr const char* kFile = "File";
  static constexpr const char* kTtlProcesses = "TtlProcesses";
  // Keys of ClientInformation.
  static constexpr const char* kSequenceNumber = "SequenceNumber";
  static constexpr const char* kBootTime = "BootTime";

  // A new database says when the machine was started, by the procfs at `proc_root`; "0" when that does not tell.
  explicit SnapshotSqlDataFormatter(std::string proc_root = "/proc") : proc_root_(std::move(proc_root)) {}

  // Operations on a table throw common::SqlDataFormatterException "SnapshotSqlDataFormatter::Select: Invalid table
  // type: <number>" for a table of older versions, with its name for any other word.
  [[nodiscard]] Statements Clear() override;
  [[nodiscard]] Statements Clear(const std::string& table) override;
  [[nodiscard]] Statements Create() override;
  [[nodiscard]] std::string Delete(const std::string& table, const std::string& key) override;
  [[nodiscard]] std::string GetVersion() override { return "PRAGMA user_version"; }
  [[nodiscard]] std::string DeleteBound(const std::string& table) override;
  [[nodiscard]] BoundInsert InsertBound(const std::string& table) override;
  // Throws std::out_of_range for a row that is cut short.
  [[nodiscard]] std::string Insert(const std::string& table, const std::string& key, const common::Bytes& row) override;
  [[nodiscard]] std::string Select(const std::string& table, const std::string& key) override;
  // Throws common::SqlDataFormatterException for a version below 0.
  [[nodiscard]] Statements Migrate(std::int64_t version) override;

  // How many rows a table has, and how to delete those that were written the longest ago.
  [[nodiscard]] static std::string Count(const std::string& table);
  [[nodiscard]] static std::string DeleteOldest(const std::string& table, std::int64_t count);

  // Queries that fail when the database has other tables than it says, and answer with the name of a table that has a
  // row which cannot be read: a column that is empty, or not of its type.
  [[nodiscard]] static Statements Check();

 private:
  [[nodiscard]] std::string InsertBootTime() const;

  const std::string proc_root_;
};

}  // namespace zagent::ioc::internal
