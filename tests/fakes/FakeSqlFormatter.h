#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlDataFormatter.h"

namespace zagent::fakes {

// Tables of one shape, [Key] TEXT PRIMARY KEY, [Number] BIGINT, [Text] TEXT. Version 0 has no version query.
class FakeSqlFormatter : public common::SqlDataFormatter {
 public:
  struct Schema {
    std::int64_t version = 0;
    Statements migration{};  // for every older version
    Statements tables{"Items", "Others"};
    bool inserts_are_bound = false;
  };
  FakeSqlFormatter() : FakeSqlFormatter(Schema{}) {}
  explicit FakeSqlFormatter(Schema schema) : schema_(std::move(schema)) {}

  static std::string CreateTable(const std::string& table) {
    return "CREATE TABLE [" + table + "] ([Key] TEXT PRIMARY KEY, [Number] BIGINT, [Text] TEXT)";
  }
  [[nodiscard]] Statements Clear() override {
    Statements all;
    for (const std::string& table : schema_.tables) all.push_back("DELETE from " + table);
    return all;
  }
  [[nodiscard]] Statements Clear(const std::string& table) override { return {"DELETE from " + table}; }
  [[nodiscard]] Statements Create() override {
    Statements all;
    for (const std::string& table : schema_.tables) all.push_back(CreateTable(table));
    if (schema_.version != 0) all.push_back(SetVersion());
    return all;
  }
  [[nodiscard]] std::string Delete(const std::string& table, const std::string& key) override {
    return "DELETE from " + table + Where(key);
  }
  [[nodiscard]] std::string GetVersion() override { return schema_.version != 0 ? "PRAGMA user_version" : ""; }
  [[nodiscard]] std::string Insert(const std::string& table, const std::string&, const common::Bytes& row) override {
    common::Serializer columns(row);
    const std::string key = columns.GetString();
    const std::int64_t number = columns.GetInteger();
    std::string statement = "INSERT or REPLACE INTO ";
    statement.append(table).append(" VALUES (").append(Quote(key)).append(", ").append(std::to_string(number));
    return statement.append(", ").append(Quote(columns.GetString())).append(")");
  }
  [[nodiscard]] BoundInsert InsertBound(const std::string& table) override {
    if (!schema_.inserts_are_bound) return {};
    return {"INSERT or REPLACE INTO " + table + " VALUES (?1, ?2, ?3)",
            {ColumnType::Text, ColumnType::Integer, ColumnType::Text}};
  }
  [[nodiscard]] std::string Select(const std::string& table, const std::string& key) override {
    return "SELECT * from " + table + (key.empty() ? ";" : Where(key));
  }
  [[nodiscard]] Statements Migrate(std::int64_t version) override {
    if (version >= schema_.version) return {};
    Statements all = schema_.migration;
    all.push_back(SetVersion());
    return all;
  }

 private:
  [[nodiscard]] std::string SetVersion() const { return "PRAGMA user_version = " + std::to_string(schema_.version); }
  static std::string Where(const std::string& key) { return " WHERE Key = " + Quote(key) + ";"; }

  const Schema schema_;
};

}  // namespace zagent::fakes
