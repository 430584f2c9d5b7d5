#pragma once

#include "common/src/storage/SqlDataFormatter.h"

namespace zagent::fim::internal {

// The baseline's database: one table of the files that are known, with the outcome of reading their content.
//
//   BaselineEvents: FilePath TEXT PRIMARY KEY, ContentStatus TEXT
//
// It has no version: there is nothing to migrate.
class BaselineEventSqlDataFormatter final : public common::SqlDataFormatter {
 public:
  static constexpr const char* kTable = "BaselineEvents";

  [[nodiscard]] Statements Clear() override;
  // Throws SqlDataFormatterException: the table is the database.
  [[nodiscard]] Statements Clear(const std::string& table) override;
  [[nodiscard]] Statements Create() override;
  [[nodiscard]] std::string Delete(const std::string& table, const std::string& key) override;
  // Throws std::out_of_range for a row that is cut short.
  [[nodiscard]] std::string Insert(const std::string& table, const std::string& key, const common::Bytes& row) override;
  [[nodiscard]] std::string Select(const std::string& table, const std::string& key) override;
  [[nodiscard]] Statements Migrate(std::int64_t version) override;
};

}  // namespace zagent::fim::internal
