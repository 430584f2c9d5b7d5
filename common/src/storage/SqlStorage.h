#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/src/storage/SqlDataFormatter.h"
#include "common/src/storage/SqlRowIterator.h"
#include "common/src/tasks/TaskSchedule.h"

namespace zagent::common {

namespace internal {
class SqlCache;
class SqlConnection;
class SqlSharedFormatter;
}  // namespace internal

class Scheduler;

// A small persistent map of tables: rows by table and text key in one SQLite database, as its formatter describes it.
//
//   SqlStorage files(folder, "SnapshotEdr.db", std::make_unique<MyFormatter>(), &scheduler, SqlStorage::Caching::On);
//   files.WriteAsync("File", {{path, files.MakeRow(path, size, hash)}}, [](const SqlStorage::Result& result) { ... });
//   const Bytes row = files.Read("File", path);
//
// Without a Scheduler the object is for one thread at a time. With one, every operation may be called from any thread:
// only the thread of the storage's tasks touches the connection, and a synchronous call waits for its turn there, or
// runs at once when it is made from a completion callback. When no Scheduler runs the tasks (any more) synchronous
// calls throw StorageException instead of waiting, and after its Stop asynchronous operations fail at once; tasks that
// still wait when the storage is destroyed run then.
//
// A list of rows or statements is one transaction: all of it or nothing, on disk when the call or callback says so.
// What SQLite refuses is logged and thrown as StorageException (SqlException); what the formatter throws passes.
//
// Bounds: 64 MiB of statements wait in the queue, beyond that an asynchronous operation fails at once; the cache is
// that of SqlCache. A result set is as large as the table.
class SqlStorage {
 public:
  enum class Caching : std::uint32_t { Off = 0, On = 1 };
  using Rows = std::vector<std::pair<std::string, Bytes>>;  // key and row

  // The outcome of an asynchronous operation.
  struct Result {
    bool succeeded = false;
    std::string error;  // the failure's text
    Bytes row;          // what was read; empty when the key is not there
  };
  using Callback = std::function<void(const Result&)>;

  // Opens the database `name` in `directory`, both made when missing (mode 0700 and 0600), and brings it to the
  // formatter's schema. A file of length 0 is new. Throws std::runtime_error "SqlStorage: ..." with a text of its own
  // for each bad argument and for what goes wrong; SqlException where SQLite refused, a file that is no database
  // included. A failing vacuum is only logged. `scheduler` (may be null) outlives the storage.
  SqlStorage(const std::string& directory, const std::string& name, std::unique_ptr<SqlDataFormatter> formatter,
             Scheduler* scheduler, Caching caching);
  SqlStorage(const SqlStorage&) = delete;
  SqlStorage& operator=(const SqlStorage&) = delete;
  // Runs the tasks that wait, with their callbacks. Not from a callback.
  ~SqlStorage();

  // A row from its columns in table order, integers and texts, in the form that the formatter gives it.
  template <typename... Columns>
  Bytes MakeRow(const Columns&... columns) {
    return BuildRow([&](SqlDataFormatter& row) { (row.Add(columns), ...); });
  }

  void Execute(const std::string& statement);
  void ExecuteAll(const std::vector<std::string>& statements);
  SqlRowIterator Query(const std::string& statement);
  void Vacuum();

  void Write(const std::string& table, const std::string& key, const Bytes& row);
  void Write(const std::string& table, const Rows& rows);
  // The rows of the table from now on, in the place of all that it had. They are not put into the cache.
  void Replace(const std::string& table, const Rows& rows);
  // The row of a key, empty when it is not there. Throws StorageException for an empty key.
  Bytes Read(const std::string& table, const std::string& key);
  // Whether there is a row of the key. Throws as Read does.
  [[nodiscard]] bool Has(const std::string& table, const std::string& key);
  // Past the cache.
  SqlRowIterator ReadAll(const std::string& table);
  void Delete(const std::string& table, const std::string& key);
  void Clear();
  void Clear(const std::string& table);

  // Throw std::runtime_error without a Scheduler or without a callback. The callback is called exactly once, on the
  // tasks' thread, or on the caller's when the operation is refused at once. What was given to WriteAsync or
  // DeleteAsync is what Read finds in the cache from then on. Once the cache has forgotten it Read waits behind the
  // change; a callback, which cannot wait, finds what the database has.
  void WriteAsync(const std::string& table, const Rows& rows, Callback callback);
  void ReadAsync(const std::string& table, const std::string& key, Callback callback);
  void DeleteAsync(const std::string& table, const std::string& key, Callback callback);
  void DeleteAsync(const std::string& table, const std::vector<std::string>& keys, Callback callback);

  // Empties the cache; what is asked for next is read from the database. From any thread.
  void ForgetCached();

  // True once SQLite has found the file torn: it should be set aside (see OpenSqlStorage). From any thread.
  [[nodiscard]] bool IsDamaged() const;

 private:
  class Change;
  using Work = std::function<void(Result&)>;

  void Open(const std::string& directory, const std::string& path);
  void Create();
  // False when the file holds nothing.
  bool SetUp();
  void Migrate();
  Bytes BuildRow(const std::function<void(SqlDataFormatter&)>& fill);
  template <typename Operation>
  auto Run(Operation operation);
  std::string Insert(const std::string& table, const std::string& key, const Bytes& row);
  Bytes Fetch(const std::string& table, const std::string& key);
  void CheckAsync(const Callback& callback, const char* text) const;
  void Post(Work work, std::unique_ptr<Change> change, Callback callback, std::uint64_t bytes);

  const std::unique_ptr<internal::SqlSharedFormatter> formatter_;
  const std::unique_ptr<internal::SqlCache> cache_;  // null without caching
  Scheduler* const scheduler_;
  std::unique_ptr<internal::SqlConnection> connection_;
  std::shared_ptr<TaskSchedule> schedule_;  // null without a Scheduler
  std::string path_;
};

}  // namespace zagent::common
