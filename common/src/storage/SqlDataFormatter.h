#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/src/storage/DataFormatter.h"

namespace zagent::common {

class SqlDataFormatterException : public DataFormatterException {
 public:
  using DataFormatterException::DataFormatterException;
};

// What one database looks like: its schema, the only place where its SQL is written, and the byte form of its rows
// (see Serializer). A row holds every column in table order, the key's too, so that what is written equals what is
// read back. One call, one statement, with nothing behind its last character; several go as a list.
//
// Keys and texts come from whoever names a file: everything that is no number goes through Quote.
//
// Used by one thread at a time; SqlStorage sees to that. The order of the virtual operations is part of the interface.
class SqlDataFormatter {
 public:
  using Statements = std::vector<std::string>;

  SqlDataFormatter() = default;
  SqlDataFormatter(const SqlDataFormatter&) = delete;
  SqlDataFormatter& operator=(const SqlDataFormatter&) = delete;
  virtual ~SqlDataFormatter() = default;

  // Append a column to the row being built.
  virtual void Add(std::int64_t value);
  virtual void Add(const std::string& text);
  // Empty the whole database, or one table; a formatter may refuse the latter by throwing.
  [[nodiscard]] virtual Statements Clear() = 0;
  [[nodiscard]] virtual Statements Clear(const std::string& table) = 0;
  // Make the schema. The last statement is "PRAGMA user_version = <number>" where the database has a version.
  [[nodiscard]] virtual Statements Create() = 0;
  [[nodiscard]] virtual std::string Delete(const std::string& table, const std::string& key) = 0;
  // The row being built; the next one may begin.
  [[nodiscard]] virtual Bytes Finish();
  // The query for the schema's version ("PRAGMA user_version"); empty for a database that has none.
  [[nodiscard]] virtual std::string GetVersion() { return {}; }
  [[nodiscard]] virtual std::string Insert(const std::string& table, const std::string& key, const Bytes& row) = 0;
  // Reads the row of a key; all rows of the table when the key is empty.
  [[nodiscard]] virtual std::string Select(const std::string& table, const std::string& key) = 0;
  // Begins a row. Throws SqlDataFormatterException while another one is unfinished.
  virtual void Start();
  // Bring a database of this version to the present one; nothing for the present one and for newer ones.
  [[nodiscard]] virtual Statements Migrate(std::int64_t version) = 0;
  // Deletes the row whose key is bound to its only parameter, so that it is compiled once for many keys. Empty: each
  // key has a statement of its own.
  [[nodiscard]] virtual std::string DeleteBound(const std::string& /*table*/) { return {}; }

  enum class ColumnType : std::uint8_t { Integer, Text };
  // What Insert gives, with a parameter for each column of the row, so that it is compiled once for many rows.
  struct BoundInsert {
    std::string statement;
    std::vector<ColumnType> columns;
  };
  // Without columns: each row has a statement of its own.
  [[nodiscard]] virtual BoundInsert InsertBound(const std::string& /*table*/) { return {}; }

  // `text` as a literal of SQL: in single quotes, each single quote in it doubled. NUL bytes are left out, for they
  // would end the statement; no other byte means anything within the quotes.
  [[nodiscard]] static std::string Quote(std::string_view text);

 private:
  Bytes row_;
};

}  // namespace zagent::common
