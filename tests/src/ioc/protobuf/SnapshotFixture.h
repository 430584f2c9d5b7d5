#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/tasks/Scheduler.h"
#include "src/ioc/config/Config.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::ioc::internal::protobuf {

// The tables of the snapshot that messages are made with.
class SnapshotTables final : public common::SqlDataFormatter {
 public:
  [[nodiscard]] Statements Clear() override { return {}; }
  [[nodiscard]] Statements Clear(const std::string& table) override { return {"DELETE from " + table}; }
  [[nodiscard]] Statements Create() override {
    return {"CREATE TABLE [ClientInformation] (Name TEXT UNIQUE, Value TEXT)",
            "CREATE TABLE [Directory] (RowID TEXT PRIMARY KEY, Path TEXT, A BIGINT, B BIGINT, C BIGINT, D BIGINT)",
            "CREATE TABLE [File] (RowID TEXT PRIMARY KEY, ParentId TEXT, Size INTEGER, A BIGINT, B BIGINT, C BIGINT, "
            "D BIGINT, MD5Hash TEXT, SHA1 TEXT, SHA256 TEXT)"};
  }
  [[nodiscard]] std::string Delete(const std::string& table, const std::string& key) override {
    return "DELETE from " + table + " WHERE " + (table == "ClientInformation" ? "Name" : "RowID") + " = " + Quote(key);
  }
  [[nodiscard]] std::string Insert(const std::string& table, const std::string&, const common::Bytes& row) override {
    static const std::map<std::string, std::string> kTypes = {
        {"ClientInformation", "tt"}, {"Directory", "ttiiii"}, {"File", "ttiiiiittt"}};
    common::Serializer columns(row);
    std::string values;
    for (const char type : kTypes.at(table)) {
      values += values.empty() ? "" : ", ";
      values += type == 't' ? Quote(columns.GetString()) : std::to_string(columns.GetInteger());
    }
    return "INSERT or REPLACE INTO " + table + " VALUES (" + values + ")";
  }
  [[nodiscard]] std::string Select(const std::string& table, const std::string& key) override {
    return "SELECT * from " + table + " WHERE " + (table == "ClientInformation" ? "Name" : "RowID") + " = " +
           Quote(key);
  }
  [[nodiscard]] Statements Migrate(std::int64_t) override { return {}; }
};

// A snapshot on disk, and a configuration.
class SnapshotFixture {
 protected:
  SnapshotFixture() {
    scheduler_.Start();
    OpenSnapshot();
  }

  void OpenSnapshot(common::SqlStorage::Caching caching = common::SqlStorage::Caching::On) {
    snapshot_.reset();
    snapshot_ = std::make_unique<common::SqlStorage>(folder_.Path(), "Snapshot.db", std::make_unique<SnapshotTables>(),
                                                     &scheduler_, caching);
  }
  // What is on disk by now.
  std::string Information(const std::string& name) {
    common::SqlRowIterator rows = snapshot_->Query("SELECT * from ClientInformation WHERE Name = '" + name + "'");
    const common::Bytes row = rows.Next();
    if (row.empty()) return "(none)";
    common::Serializer columns(row);
    columns.GetString();
    return columns.GetString();
  }
  void SetInformation(const std::string& name, const std::string& value) {
    snapshot_->Write("ClientInformation", name, snapshot_->MakeRow(name, value));
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  common::Scheduler scheduler_;
  std::unique_ptr<common::SqlStorage> snapshot_;
  TestSection section_;
  const std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  Config config_{*common_, ParsedJson(section_.Text())};
};

}  // namespace zagent::ioc::internal::protobuf
