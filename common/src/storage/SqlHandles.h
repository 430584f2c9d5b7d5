#pragma once

#include <sqlite3.h>

#include <memory>

namespace zagent::common::internal {

struct DatabaseDeleter {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using DatabaseHandle = std::unique_ptr<sqlite3, DatabaseDeleter>;

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

}  // namespace zagent::common::internal
