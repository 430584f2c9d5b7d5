#include "src/ioc/process/SnapshotStorage.h"

#include <sqlite3.h>

#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlConnection.h"
#include "common/src/storage/SqlException.h"
#include "common/src/storage/SqlFile.h"
#include "common/src/storage/SqlSharedFormatter.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"

namespace zagent::ioc::internal {
namespace {

using common::SqlStorage;

std::unique_ptr<SqlStorage> Open(const std::string& directory, common::Scheduler* scheduler,
                                 const std::string& proc_root) {
  return common::OpenSqlStorage(
      directory, kSnapshotName, [&] { return std::make_unique<SnapshotSqlDataFormatter>(proc_root); }, scheduler,
      SqlStorage::Caching::On);
}

// By a connection of its own: the tasks of the scheduler need not run yet.
void CheckTables(const std::string& path) {
  common::internal::SqlConnection connection(path, common::internal::SqlConnection::Mode::Existing);
  common::internal::SqlSharedFormatter rows(std::make_unique<SnapshotSqlDataFormatter>());
  for (const std::string& query : SnapshotSqlDataFormatter::Check()) {
    const common::Bytes table = connection.Query(query, rows).Next();
    if (table.empty()) continue;
    throw common::StorageException("A row of " + common::Serializer(table).GetString() + " cannot be read");
  }
}

// What trying again would not change. A lock, a full disk or a missing right would.
bool IsHopeless(const common::SqlException& error) {
  constexpr int kPrimary = 0xff;
  const int code = error.SqliteCode() & kPrimary;
  return error.IsDamage() || code == SQLITE_ERROR || code == SQLITE_CONSTRAINT || code == SQLITE_MISMATCH;
}

}  // namespace

std::unique_ptr<SqlStorage> OpenSnapshotStorage(const std::string& directory, common::Scheduler* scheduler,
                                                const std::string& proc_root) {
  const std::string path = common::internal::SqlFilePath(directory, kSnapshotName);
  std::string reason;
  try {
    auto storage = Open(directory, scheduler, proc_root);
    CheckTables(path);
    return storage;
  } catch (const common::SqlException& error) {
    if (!IsHopeless(error)) throw;
    reason = error.what();
  } catch (const common::SqlDataFormatterException& error) {
    reason = error.what();
  } catch (const common::StorageException& error) {
    if (error.Code() != 0) throw;  // of the file system
    reason = error.what();         // a row that cannot be read
  }
  const std::string aside = common::internal::SetSqlFileAside(path);
  ZLOG_ERROR("Set aside the database " << path << " as " << aside << " and made a new one: " << reason);
  return Open(directory, scheduler, proc_root);
}

}  // namespace zagent::ioc::internal
