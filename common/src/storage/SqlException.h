#pragma once

#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::common {

// What SQLite refused, with its (extended) result code. The errno-style code of the base stays 0.
class SqlException : public StorageException {
 public:
  SqlException(const std::string& text, int sqlite_code) : StorageException(text), sqlite_code_(sqlite_code) {}
  [[nodiscard]] int SqliteCode() const { return sqlite_code_; }
  // True when the file is no database, or a torn one: trying again will not help.
  [[nodiscard]] bool IsDamage() const;

 private:
  int sqlite_code_;
};

}  // namespace zagent::common
