#include "common/src/storage/SqlStorage.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlCache.h"
#include "common/src/storage/SqlConnection.h"
#include "common/src/storage/SqlFile.h"
#include "common/src/storage/SqlSharedFormatter.h"
#include "common/src/tasks/Answer.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

// A thread that waits for the next task.
constexpr std::uint64_t kIdleSeconds = 10;
// More than this does not wait in memory.
constexpr std::uint64_t kMaxWaitingBytes = std::uint64_t{64} * 1024 * 1024;
// What a queued task costs beside its statements, and a statement, with the key that the cache remembers meanwhile,
// beside its text.
constexpr std::uint64_t kTaskBytes = 512;
constexpr std::uint64_t kStatementBytes = 128;

std::unique_ptr<internal::SqlSharedFormatter> CheckArguments(const std::string& directory, const std::string& name,
                                                             std::unique_ptr<SqlDataFormatter> formatter) {
  if (directory.empty()) throw std::runtime_error("SqlStorage: 'dbFilePath' is empty");
  if (name.empty()) throw std::runtime_error("SqlStorage: 'dbFileName' is empty");
  if (!formatter) throw std::runtime_error("SqlStorage: 'formatter' is null");
  return std::make_unique<internal::SqlSharedFormatter>(std::move(formatter));
}

// An empty key means all rows to the formatter.
void CheckKey(const std::string& key) {
  if (key.empty()) throw StorageException("SqlStorage: 'key' is empty");
}

// The exception in flight, with a text before its own.
[[noreturn]] void ThrowWith(const std::string& text) {
  try {
    throw;
  } catch (const SqlException& error) {
    throw SqlException(text + error.what(), error.SqliteCode());
  } catch (const StorageException& error) {
    throw StorageException(text + error.what());
  }
}

}  // namespace

// What a queued task changes, in the cache from now on; the cache forgets it again when the task fails or never runs.
class SqlStorage::Change {
 public:
  Change(internal::SqlCache* cache, std::string table) : cache_(cache), table_(std::move(table)) {}
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;
  ~Change() {
    if (cache_ == nullptr) return;
    for (const std::string& key : keys_) cache_->EndChange(table_, key, succeeded_);
  }

  void Add(const std::string& key, const Bytes* row) {
    if (cache_ == nullptr) return;
    keys_.push_back(key);
    cache_->BeginChange(table_, key, row);
  }
  void Succeed() { succeeded_ = true; }

 private:
  internal::SqlCache* cache_;
  const std::string table_;
  std::vector<std::string> keys_;
  bool succeeded_ = false;
};

SqlStorage::SqlStorage(const std::string& directory, const std::string& name,
                       std::unique_ptr<SqlDataFormatter> formatter, Scheduler* scheduler, Caching caching)
    : formatter_(CheckArguments(directory, name, std::move(formatter))),
      cache_(caching == Caching::On ? std::make_unique<internal::SqlCache>() : nullptr),
      scheduler_(scheduler),
      path_(internal::SqlFilePath(directory, name)) {
  Open(directory, path_);
  if (scheduler_ == nullptr) return;
  schedule_ = std::make_shared<TaskSchedule>(kIdleSeconds);
  scheduler_->RegisterSchedule(schedule_);
}

SqlStorage::~SqlStorage() {
  if (!schedule_) return;
  try {
    scheduler_->UnregisterSchedule(schedule_);
  } catch (const std::exception& error) {
    // The Scheduler has let go of all its schedules before.
    ZLOG_DEBUG("SqlStorage: " << error.what());
  }
  // No task may outlive the connection: what never started runs here.
  schedule_->Cancel();
  schedule_->Close();
}

void SqlStorage::Open(const std::string& directory, const std::string& path) {
  using internal::SqlConnection;
  ZLOG_DEBUG("SqlStorage: Opening " << path);
  internal::MakeSqlFolder(directory);
  if (internal::PrepareSqlFile(path)) {
    connection_ = std::make_unique<SqlConnection>(path, SqlConnection::Mode::Existing);
    if (SetUp()) {
      try {
        connection_->Vacuum();
      } catch (const StorageException&) {
        // Logged; the database works without it.
      }
    } else {
      Create();
    }
  } else {
    connection_ = std::make_unique<SqlConnection>(path, SqlConnection::Mode::Create);
    Create();
  }
  connection_->ExtendResultCodes();
}

void SqlStorage::Create() {
  connection_->SyncCommits();
  connection_->BoundPages();
  try {
    connection_->ExecuteAll(formatter_->Ask([](SqlDataFormatter& formatter) { return formatter.Create(); }));
  } catch (const StorageException&) {
    ThrowWith("SqlStorage: Error creating DB: ");
  }
}

bool SqlStorage::SetUp() {
  try {
    if (connection_->IsEmpty()) return false;
    connection_->SyncCommits();
    connection_->BoundPages();
    Migrate();
    return true;
  } catch (const StorageException&) {
    ThrowWith("SqlStorage: Error setting up DB: ");
  }
}

void SqlStorage::Migrate() {
  const std::string query = formatter_->Ask([](SqlDataFormatter& formatter) { return formatter.GetVersion(); });
  if (query.empty()) return;
  const Bytes row = connection_->Query(query, *formatter_).Next();
  if (row.empty()) return;
  const std::int64_t version = Serializer(row).GetInteger();
  connection_->ExecuteAll(formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Migrate(version); }));
}

Bytes SqlStorage::BuildRow(const std::function<void(SqlDataFormatter&)>& fill) {
  return formatter_->BuildRow(fill);
}

template <typename Operation>
auto SqlStorage::Run(Operation operation) {
  if (!schedule_) return operation();
  try {
    return schedule_->Call(*scheduler_, std::move(operation));
  } catch (const TaskNotRunException&) {
    throw StorageException("SqlStorage: nothing runs the tasks of " + path_);
  }
}

void SqlStorage::Execute(const std::string& statement) {
  Run([&] { connection_->Execute(statement); });
}

void SqlStorage::ExecuteAll(const std::vector<std::string>& statements) {
  Run([&] { connection_->ExecuteAll(statements); });
}

SqlRowIterator SqlStorage::Query(const std::string& statement) {
  return Run([&] { return connection_->Query(statement, *formatter_); });
}

void SqlStorage::Vacuum() {
  Run([&] { connection_->Vacuum(); });
}

void SqlStorage::Write(const std::string& table, const std::string& key, const Bytes& row) {
  const std::string insert = Insert(table, key, row);
  Run([&] {
    connection_->Execute(insert);
    if (cache_) cache_->StoreWritten(table, key, row);
  });
}

void SqlStorage::Write(const std::string& table, const Rows& rows) {
  std::vector<std::string> inserts;
  inserts.reserve(rows.size());
  for (const auto& row : rows) inserts.push_back(Insert(table, row.first, row.second));
  Run([&] {
    connection_->ExecuteAll(inserts);
    if (!cache_) return;
    for (const auto& row : rows) cache_->StoreWritten(table, row.first, row.second);
  });
}

void SqlStorage::Replace(const std::string& table, const Rows& rows) {
  auto clear = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Clear(table); });
  const auto insert = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.InsertBound(table); });
  if (insert.columns.empty()) {
    for (const auto& [key, row] : rows) clear.push_back(Insert(table, key, row));
  }
  Run([&] {
    if (insert.columns.empty()) {
      connection_->ExecuteAll(clear);
    } else {
      connection_->InsertAll(clear, insert, rows);
    }
    if (cache_) cache_->Clear(table);
  });
}

Bytes SqlStorage::Read(const std::string& table, const std::string& key) {
  CheckKey(key);
  // A row that is known costs no turn on the tasks' thread.
  if (cache_) {
    if (auto row = cache_->Find(table, key)) return std::move(*row);
  }
  return Run([&] { return Fetch(table, key); });
}

bool SqlStorage::Has(const std::string& table, const std::string& key) {
  CheckKey(key);
  return (cache_ && cache_->Has(table, key)) || !Run([&] { return Fetch(table, key); }).empty();
}

SqlRowIterator SqlStorage::ReadAll(const std::string& table) {
  return Query(formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Select(table, ""); }));
}

void SqlStorage::Delete(const std::string& table, const std::string& key) {
  const std::string statement =
      formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Delete(table, key); });
  Run([&] {
    connection_->Execute(statement);
    if (cache_) cache_->Erase(table, key);
  });
}

void SqlStorage::Clear() {
  const auto statements = formatter_->Ask([](SqlDataFormatter& formatter) { return formatter.Clear(); });
  Run([&] {
    connection_->ExecuteAll(statements);
    if (cache_) cache_->Clear();
  });
}

void SqlStorage::Clear(const std::string& table) {
  const auto statements = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Clear(table); });
  Run([&] {
    connection_->ExecuteAll(statements);
    if (cache_) cache_->Clear(table);
  });
}

void SqlStorage::WriteAsync(const std::string& table, const Rows& rows, Callback callback) {
  CheckAsync(callback, "onWriteCallback is invalid");
  auto change = std::make_unique<Change>(cache_.get(), table);
  std::vector<std::string> inserts;
  inserts.reserve(rows.size());
  std::uint64_t bytes = 0;
  for (const auto& [key, row] : rows) {
    change->Add(key, &row);
    inserts.push_back(Insert(table, key, row));
    bytes += inserts.back().size() + key.size() + kStatementBytes;
  }
  Post([this, inserts = std::move(inserts)](Result&) { connection_->ExecuteAll(inserts); }, std::move(change),
       std::move(callback), bytes);
}

void SqlStorage::ReadAsync(const std::string& table, const std::string& key, Callback callback) {
  CheckAsync(callback, "SqlStorage: onReadCallback is invalid");
  CheckKey(key);
  const auto read = [this, table, key](Result& result) {
    auto cached = cache_ ? cache_->Find(table, key) : std::nullopt;
    result.row = cached ? std::move(*cached) : Fetch(table, key);
  };
  Post(read, nullptr, std::move(callback), table.size() + key.size());
}

void SqlStorage::DeleteAsync(const std::string& table, const std::string& key, Callback callback) {
  CheckAsync(callback, "SqlStorage: onDeleteCallback is invalid");
  auto change = std::make_unique<Change>(cache_.get(), table);
  change->Add(key, nullptr);
  std::string statement = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Delete(table, key); });
  const std::uint64_t bytes = statement.size() + key.size() + kStatementBytes;
  Post([this, statement = std::move(statement)](Result&) { connection_->Execute(statement); }, std::move(change),
       std::move(callback), bytes);
}

void SqlStorage::DeleteAsync(const std::string& table, const std::vector<std::string>& keys, Callback callback) {
  CheckAsync(callback, "SqlStorage: onDeleteCallback is invalid");
  auto change = std::make_unique<Change>(cache_.get(), table);
  std::uint64_t bytes = 0;
  for (const std::string& key : keys) {
    change->Add(key, nullptr);
    bytes += key.size() + kStatementBytes;
  }
  const auto delete_each = [&](SqlDataFormatter& formatter) {
    std::vector<std::string> statements;
    statements.reserve(keys.size());
    for (const std::string& key : keys) statements.push_back(formatter.Delete(table, key));
    return statements;
  };
  std::string bound = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.DeleteBound(table); });
  auto texts = bound.empty() ? formatter_->Ask(delete_each) : keys;
  for (const std::string& text : texts) bytes += text.size();
  const auto work = [this, bound = std::move(bound), texts = std::move(texts)](Result&) {
    if (bound.empty()) {
      connection_->ExecuteAll(texts);
    } else {
      connection_->ExecuteForAll(bound, texts);
    }
  };
  Post(work, std::move(change), std::move(callback), bytes);
}

void SqlStorage::ForgetCached() {
  if (cache_) cache_->Clear();
}

bool SqlStorage::IsDamaged() const {
  return connection_->IsDamaged();
}

std::string SqlStorage::Insert(const std::string& table, const std::string& key, const Bytes& row) {
  return formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Insert(table, key, row); });
}

Bytes SqlStorage::Fetch(const std::string& table, const std::string& key) {
  const std::string select = formatter_->Ask([&](SqlDataFormatter& formatter) { return formatter.Select(table, key); });
  Bytes row = connection_->Query(select, *formatter_).Next();
  if (!cache_) return row;
  if (row.empty()) {
    cache_->CountNotFound();
  } else {
    cache_->StoreRead(table, key, row);
  }
  return row;
}

void SqlStorage::CheckAsync(const Callback& callback, const char* text) const {
  if (!schedule_) throw std::runtime_error("SqlStorage is not configured for Async operations");
  if (!callback) throw std::runtime_error(text);
}

void SqlStorage::Post(Work work, std::unique_ptr<Change> change, Callback callback, std::uint64_t bytes) {
  // The change ends before the callback hears of it.
  struct Pending {
    Answer<Result> answer;
    std::unique_ptr<Change> change;
    Work work;
  };
  const auto refused = [this] { return Result{false, "SqlStorage: refused a task of " + path_, {}}; };
  auto pending = std::shared_ptr<Pending>(
      new Pending{Answer<Result>(std::move(callback), refused), std::move(change), std::move(work)});
  auto run = [pending = std::move(pending)] {
    Result result;
    try {
      pending->work(result);
    } catch (const std::exception& error) {
      pending->change.reset();
      pending->answer.Give({false, error.what(), {}});
      throw;
    }
    if (pending->change) pending->change->Succeed();
    pending->change.reset();
    result.succeeded = true;
    pending->answer.Give(std::move(result));
  };
  schedule_->Post(std::move(run), bytes + kTaskBytes, kMaxWaitingBytes);
}

}  // namespace zagent::common
