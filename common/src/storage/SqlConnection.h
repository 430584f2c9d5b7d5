#pragma once

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "common/src/storage/SqlDataFormatter.h"
#include "common/src/storage/SqlException.h"
#include "common/src/storage/SqlHandles.h"
#include "common/src/storage/SqlRowIterator.h"
#include "common/src/storage/SqlSharedFormatter.h"

namespace zagent::common::internal {

// One connection to one database file, and the rule that one call is one statement. One thread at a time, but
// IsDamaged may be asked from any.
//
// What SQLite refuses is logged at error level with the statement, and thrown as SqlException. While somebody else has
// the database locked, a statement waits for up to a quarter of a second.
class SqlConnection {
 public:
  enum class Mode { Existing, Create };

  // Throws SqlException "SqlStorage: Error opening DB: <words>", or "Error creating DB".
  SqlConnection(const std::string& path, Mode mode);

  // Extended result codes for all that follows.
  void ExtendResultCodes();
  // Makes a commit outlive a power loss. Without it the journal's removal is not synced, and a journal that comes back
  // takes the last transaction with it.
  void SyncCommits();
  // Keeps 256 KiB of the database's pages in memory, where SQLite would keep 2 MB for as long as it is open: the system
  // has them as well. Pages that a transaction has changed wait for its end beyond that, not for a sync in its midst.
  void BoundPages();

  // True when the file holds nothing: new, or a kill came before its first transaction was committed. The first look
  // into the file: throws when it is no database.
  bool IsEmpty();

  // One statement that returns no rows.
  void Execute(const std::string& statement);
  // All of the statements or, when it throws, none.
  void ExecuteAll(const std::vector<std::string>& statements);
  // The statement with its only parameter bound to each of the texts, of which NULs are left out as of a literal: all
  // of that or, when it throws, none.
  void ExecuteForAll(const std::string& statement, const std::vector<std::string>& texts);
  // The statements, and then the insertion of each of the rows (keys and columns), of which NULs are left out as of a
  // literal: all of that or, when it throws, none. Throws std::out_of_range for a row that is cut short.
  void InsertAll(const std::vector<std::string>& before, const SqlDataFormatter::BoundInsert& insert,
                 const std::vector<std::pair<std::string, Bytes>>& rows);
  // One statement with its rows; columns are integers or texts, or it throws StorageException.
  SqlRowIterator Query(const std::string& statement, SqlSharedFormatter& formatter);
  void Vacuum();

  // True once a statement has met a file that is no database, or a torn one.
  [[nodiscard]] bool IsDamaged() const { return damaged_; }

 private:
  template <typename Work>
  void InTransaction(const Work& work);
  // Once, with what was bound to it by this code of SQLite's.
  void RunBound(sqlite3_stmt* prepared, const std::string& statement, int code);
  StatementHandle Prepare(const std::string& statement);
  // Runs a fixed text that changes the state of the transaction; returns SQLite's words, empty on success.
  std::string Control(const char* text);
  [[noreturn]] void FailToExecute(const std::string& statement, int code);
  void Commit();
  void Rollback();
  SqlException MakeException(const std::string& text, int code);

  DatabaseHandle database_;
  std::atomic<bool> damaged_{false};
};

}  // namespace zagent::common::internal
