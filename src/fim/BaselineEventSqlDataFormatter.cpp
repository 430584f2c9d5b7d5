#include "src/fim/BaselineEventSqlDataFormatter.h"

#include "common/src/storage/Serializer.h"

namespace zagent::fim::internal {
namespace {

std::string WherePathIs(const std::string& path) {
  return " WHERE FilePath = " + common::SqlDataFormatter::Quote(path) + ";";
}

}  // namespace

common::SqlDataFormatter::Statements BaselineEventSqlDataFormatter::Clear() {
  return {std::string("DELETE from ") + kTable + ";"};
}

common::SqlDataFormatter::Statements BaselineEventSqlDataFormatter::Clear(const std::string& /*table*/) {
  throw common::SqlDataFormatterException("Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
}

common::SqlDataFormatter::Statements BaselineEventSqlDataFormatter::Create() {
  return {
      "CREATE TABLE [BaselineEvents] ("
      "[FilePath] TEXT PRIMARY KEY, "
      "[ContentStatus] TEXT)"};
}

std::string BaselineEventSqlDataFormatter::Delete(const std::string& table, const std::string& key) {
  return "DELETE from " + table + WherePathIs(key);
}

std::string BaselineEventSqlDataFormatter::Insert(const std::string& table, const std::string& /*key*/,
                                                  const common::Bytes& row) {
  common::Serializer columns(row);
  const std::string path = columns.GetString();
  const std::string status = columns.GetString();
  return "INSERT or REPLACE INTO " + table + " VALUES (" + Quote(path) + ", " + Quote(status) + ")";
}

std::string BaselineEventSqlDataFormatter::Select(const std::string& table, const std::string& key) {
  return "SELECT * from " + table + (key.empty() ? ";" : WherePathIs(key));
}

common::SqlDataFormatter::Statements BaselineEventSqlDataFormatter::Migrate(std::int64_t /*version*/) {
  return {};
}

}  // namespace zagent::fim::internal
