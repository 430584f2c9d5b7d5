#include "common/src/storage/SqlConnection.h"

#include <climits>
#include <new>

#include "common/src/storage/Serializer.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr int kBusyTimeoutMillis = 250;

// A primary code is the low byte of an extended one.
int PrimaryCode(int code) {
  return code & 0xff;
}

void AddColumn(sqlite3_stmt* row, int column, SqlDataFormatter& to) {
  switch (sqlite3_column_type(row, column)) {
    case SQLITE_INTEGER:
      to.Add(sqlite3_column_int64(row, column));
      return;
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
      if (text == nullptr) throw std::bad_alloc();
      to.Add(std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(row, column))));
      return;
    }
    default: {
      const char* table = sqlite3_column_table_name(row, column);  // null for an expression
      throw StorageException("Unsupported data type in table " + std::string(table != nullptr ? table : ""));
    }
  }
}

int BindText(sqlite3_stmt* statement, int parameter, std::string text) {
  std::erase(text, '\0');
  return sqlite3_bind_text(statement, parameter, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

int BindRow(sqlite3_stmt* statement, const std::vector<SqlDataFormatter::ColumnType>& columns, const Bytes& row) {
  Serializer values(row);
  int parameter = 0;
  int code = SQLITE_OK;
  for (const SqlDataFormatter::ColumnType type : columns) {
    ++parameter;
    const int bound = type == SqlDataFormatter::ColumnType::Text
                          ? BindText(statement, parameter, values.GetString())
                          : sqlite3_bind_int64(statement, parameter, values.GetInteger());
    if (code == SQLITE_OK) code = bound;
  }
  return code;
}

}  // namespace

bool SqlException::IsDamage() const {
  const int primary = PrimaryCode(sqlite_code_);
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

namespace internal {

SqlConnection::SqlConnection(const std::string& path, Mode mode) {
  const int flags = SQLITE_OPEN_READWRITE | (mode == Mode::Create ? SQLITE_OPEN_CREATE : 0);
  sqlite3* raw = nullptr;
  const int code = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  database_.reset(raw);
  if (code != SQLITE_OK) {
    const std::string words = raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(code);
    if (mode == Mode::Create) throw MakeException("SqlStorage: Error creating DB: " + words, code);
    throw MakeException("SqlStorage: Error opening DB: " + words, code);
  }
  sqlite3_busy_timeout(raw, kBusyTimeoutMillis);
}

void SqlConnection::ExtendResultCodes() {
  sqlite3_extended_result_codes(database_.get(), 1);
}

void SqlConnection::SyncCommits() {
  // A journal that is cut to nothing is synced; a journal that is removed (the default) is not.
  const std::string failure = Control("PRAGMA journal_mode = TRUNCATE");
  if (!failure.empty()) ZLOG_WARNING("SqlStorage: The journal cannot be truncated: " << failure);
}

void SqlConnection::BoundPages() {
  for (const char* pragma : {"PRAGMA cache_size = -256", "PRAGMA cache_spill = OFF"}) {
    const std::string failure = Control(pragma);
    if (!failure.empty()) ZLOG_WARNING("SqlStorage: The pages in memory cannot be bounded: " << failure);
  }
}

bool SqlConnection::IsEmpty() {
  static const std::string kPages = "PRAGMA page_count";
  const StatementHandle pages = Prepare(kPages);
  const int code = sqlite3_step(pages.get());
  if (code != SQLITE_ROW) FailToExecute(kPages, code);
  return sqlite3_column_int64(pages.get(), 0) == 0;
}

void SqlConnection::Execute(const std::string& statement) {
  const StatementHandle prepared = Prepare(statement);
  const int code = sqlite3_step(prepared.get());
  if (code != SQLITE_DONE) FailToExecute(statement, code);
}

void SqlConnection::ExecuteAll(const std::vector<std::string>& statements) {
  if (statements.empty()) return;
  InTransaction([&] {
    for (const std::string& statement : statements) Execute(statement);
  });
}

void SqlConnection::ExecuteForAll(const std::string& statement, const std::vector<std::string>& texts) {
  if (texts.empty()) return;
  InTransaction([&] {
    const StatementHandle prepared = Prepare(statement);
    for (const std::string& text : texts) RunBound(prepared.get(), statement, BindText(prepared.get(), 1, text));
  });
}

void SqlConnection::InsertAll(const std::vector<std::string>& before, const SqlDataFormatter::BoundInsert& insert,
                              const std::vector<std::pair<std::string, Bytes>>& rows) {
  InTransaction([&] {
    for (const std::string& statement : before) Execute(statement);
    const StatementHandle prepared = Prepare(insert.statement);
    for (const auto& row : rows) {
      RunBound(prepared.get(), insert.statement, BindRow(prepared.get(), insert.columns, row.second));
    }
  });
}

void SqlConnection::RunBound(sqlite3_stmt* prepared, const std::string& statement, int code) {
  if (code == SQLITE_OK) code = sqlite3_step(prepared);
  if (code != SQLITE_DONE) FailToExecute(statement, code);
  sqlite3_reset(prepared);
}

template <typename Work>
void SqlConnection::InTransaction(const Work& work) {
  const std::string failure = Control("BEGIN");
  if (!failure.empty()) {
    throw MakeException("Failed to start trasaction: " + failure, sqlite3_extended_errcode(database_.get()));
  }
  try {
    work();
    Commit();
  } catch (...) {
    Rollback();
    throw;
  }
}

SqlRowIterator SqlConnection::Query(const std::string& statement, SqlSharedFormatter& formatter) {
  const StatementHandle prepared = Prepare(statement);
  const int columns = sqlite3_column_count(prepared.get());
  SqlRowIterator rows;
  int code = sqlite3_step(prepared.get());
  for (; code == SQLITE_ROW; code = sqlite3_step(prepared.get())) {
    rows.Add(formatter.BuildRow([&](SqlDataFormatter& row) {
      for (int column = 0; column < columns; ++column) AddColumn(prepared.get(), column, row);
    }));
  }
  if (code != SQLITE_DONE) FailToExecute(statement, code);
  return rows;
}

void SqlConnection::Vacuum() {
  ZLOG_DEBUG("Performing the vacuum of the db");
  Execute("VACUUM;");
}

StatementHandle SqlConnection::Prepare(const std::string& statement) {
  ZLOG_TRACE("SqlStorage: Executing query '" << statement << "'");
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  int code = SQLITE_TOOBIG;
  // The length counts the NUL at the end, which spares SQLite a copy of the text.
  if (statement.size() < INT_MAX) {
    code = sqlite3_prepare_v2(database_.get(), statement.c_str(), static_cast<int>(statement.size()) + 1, &raw, &tail);
  }
  StatementHandle prepared(raw);
  if (!prepared) {
    const char* words = statement.size() < INT_MAX ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(code);
    ZLOG_ERROR("SqlStorage: Failed to compile '" << statement
                                                 << "': " << (code == SQLITE_OK ? "it holds no statement" : words));
    throw MakeException("Failed to compile query", code);
  }
  // A NUL within the text ends it for SQLite; what stands behind is a tail as well.
  if (tail != statement.c_str() + statement.size()) {
    ZLOG_ERROR("SqlStorage: Multiple sql statements in query '" << statement << "'");
    throw StorageException("'query' has multiple statements");
  }
  return prepared;
}

std::string SqlConnection::Control(const char* text) {
  if (sqlite3_exec(database_.get(), text, nullptr, nullptr, nullptr) == SQLITE_OK) return {};
  return sqlite3_errmsg(database_.get());
}

void SqlConnection::FailToExecute(const std::string& statement, int code) {
  ZLOG_ERROR("SqlStorage: Failed to execute '" << statement << "': " << sqlite3_errmsg(database_.get()));
  throw MakeException("Failed to execute query", code);
}

void SqlConnection::Commit() {
  const std::string failure = Control("END");
  if (!failure.empty()) {
    throw MakeException("Failed to commit trasaction: " + failure, sqlite3_extended_errcode(database_.get()));
  }
}

void SqlConnection::Rollback() {
  const std::string failure = Control("ROLLBACK");
  if (!failure.empty()) ZLOG_ERROR("Failed to rollback the last transaction: " << failure);
}

SqlException SqlConnection::MakeException(const std::string& text, int code) {
  SqlException exception(text, code);
  if (exception.IsDamage()) damaged_ = true;
  return exception;
}

}  // namespace internal
}  // namespace zagent::common
