#include "src/health/AHSSqlDataFormatter.h"

#include <utility>

#include "common/src/util/Log.h"
#include "src/health/AHSRecord.h"
#include "src/health/LogPrefix.h"

namespace zagent::health {
namespace {

constexpr const char* kWhere = " WHERE";

const std::string& Checked(const std::string& condition) {
  if (!condition.starts_with(kWhere) && condition != AHSSqlDataFormatter::kOldest) {
    throw common::SqlDataFormatterException("AHSSqlDataFormatter: not a condition: " + condition);
  }
  return condition;
}

}  // namespace

std::string AHSSqlDataFormatter::Condition(const Range& range) {
  std::string text = kWhere;
  text += " [StatusCode] >= " + std::to_string(range.low);
  text += " AND [StatusCode] <= " + std::to_string(range.high);
  if (!range.sort_column.empty()) text += " ORDER BY " + range.sort_column + (range.descending ? " DESC" : "");
  if (range.limit != -1) text += " LIMIT " + std::to_string(range.limit);
  return text;
}

AHSSqlDataFormatter::AHSSqlDataFormatter(std::string directory, std::string name)
    : path_(std::move(directory) + "/" + std::move(name)) {}

AHSSqlDataFormatter::Statements AHSSqlDataFormatter::Clear() {
  return {std::string("DELETE FROM ") + kTable};
}

AHSSqlDataFormatter::Statements AHSSqlDataFormatter::Clear(const std::string& /*table*/) {
  throw common::SqlDataFormatterException("Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
}

AHSSqlDataFormatter::Statements AHSSqlDataFormatter::Create() {
  return {
      "CREATE TABLE [AgentStatus] ([Time] TEXT, [ContextId] TEXT, [StatusCode] INTEGER, [State] INTEGER, "
      "[AdditionalFields] TEXT)",
      "PRAGMA user_version = " + std::to_string(kVersion)};
}

std::string AHSSqlDataFormatter::Delete(const std::string& table, const std::string& condition) {
  return "DELETE FROM " + table + Checked(condition);
}

std::string AHSSqlDataFormatter::GetVersion() {
  return "PRAGMA user_version";
}

std::string AHSSqlDataFormatter::Insert(const std::string& table, const std::string& /*key*/,
                                        const common::Bytes& row) {
  const AHSRecord record = AHSRecord::FromRow(row);
  return "INSERT or REPLACE INTO " + table + " VALUES (" + Quote(record.time) + ", " + Quote(record.context_id) + ", " +
         std::to_string(record.status_code) + ", " + std::to_string(record.state) + ", " +
         Quote(record.additional_fields) + ")";
}

std::string AHSSqlDataFormatter::Select(const std::string& table, const std::string& condition) {
  return "SELECT * from " + table + (condition.empty() ? condition : Checked(condition));
}

AHSSqlDataFormatter::Statements AHSSqlDataFormatter::Migrate(std::int64_t version) {
  if (version >= kVersion) return {};
  ZLOG_INFO("AHS: " << path_ << " is of version " << version << ": its table is made anew");
  Statements statements = Create();
  statements.insert(statements.begin(), "Drop table AgentStatus;");
  return statements;
}

std::string AHSSqlDataFormatter::Count(const std::string& condition) {
  return std::string("SELECT count(*) FROM ") + kTable + (condition.empty() ? condition : Checked(condition));
}

std::string AHSSqlDataFormatter::DeleteOldest(std::int64_t rows) {
  const std::string from = std::string(" FROM ") + kTable + Condition({});
  const std::string largest =
      "SELECT [StatusCode] / 100" + from + " GROUP BY [StatusCode] / 100 ORDER BY count(*) DESC LIMIT 1";
  return std::string("DELETE FROM ") + kTable + " WHERE rowid IN (SELECT rowid" + from + " AND [StatusCode] / 100 = (" +
         largest + ") ORDER BY rowid LIMIT " + std::to_string(rows) + ")";
}

}  // namespace zagent::health
