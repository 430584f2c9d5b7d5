#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/SqlDataFormatter.h"

namespace zagent::health {

// The database of statuses: one table, AgentStatus, whose rows are AHSRecords. Rows have no key: where SqlStorage hands
// over a key, this formatter takes a condition that it has made itself, and refuses any other text.
class AHSSqlDataFormatter final : public common::SqlDataFormatter {
 public:
  static constexpr const char* kTable = "AgentStatus";
  static constexpr std::int64_t kVersion = 1;
  // The condition of the oldest row.
  static constexpr const char* kOldest = " order by time limit 1";

  // Which rows. Those that are uploaded, in any order, unless told otherwise.
  struct Range {
    std::int64_t low = 4001;
    std::int64_t high = 5000;  // inclusive
    std::int64_t limit = -1;   // -1: none
    std::string sort_column;   // empty: as they come
    bool descending = false;
  };
  static std::string Condition(const Range& range);

  // Where the database lies.
  AHSSqlDataFormatter(std::string directory, std::string name);

  [[nodiscard]] Statements Clear() override;
  // Throws SqlDataFormatterException: there is one table only.
  [[nodiscard]] Statements Clear(const std::string& table) override;
  [[nodiscard]] Statements Create() override;
  [[nodiscard]] std::string Delete(const std::string& table, const std::string& condition) override;
  [[nodiscard]] std::string GetVersion() override;
  // The key means nothing. Throws std::out_of_range for a row that is none.
  [[nodiscard]] std::string Insert(const std::string& table, const std::string& key, const common::Bytes& row) override;
  // Every row for an empty condition.
  [[nodiscard]] std::string Select(const std::string& table, const std::string& condition) override;
  // A lower version is dropped with its rows: nobody waits for them but the platform, which has had most of them.
  [[nodiscard]] Statements Migrate(std::int64_t version) override;

  [[nodiscard]] static std::string Count(const std::string& condition);
  // Those for upload that came first, of the component that has the most of them: its codes share their hundreds. Who
  // reports much takes nothing from the others.
  [[nodiscard]] static std::string DeleteOldest(std::int64_t rows);

 private:
  const std::string path_;
};

}  // namespace zagent::health
