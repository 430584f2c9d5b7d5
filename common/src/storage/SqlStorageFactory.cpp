#include "common/src/storage/SqlStorageFactory.h"

#include "common/src/storage/SqlException.h"
#include "common/src/storage/SqlFile.h"
#include "common/src/util/Log.h"

namespace zagent::common {

std::unique_ptr<SqlStorage> OpenSqlStorage(const std::string& directory, const std::string& name,
                                           const std::function<std::unique_ptr<SqlDataFormatter>()>& make_formatter,
                                           Scheduler* scheduler, SqlStorage::Caching caching) {
  const auto open = [&] { return std::make_unique<SqlStorage>(directory, name, make_formatter(), scheduler, caching); };
  std::string reason = "a page of it is torn";
  try {
    auto storage = open();
    if (!storage->IsDamaged()) return storage;
  } catch (const SqlException& error) {
    if (!error.IsDamage()) throw;
    reason = error.what();
  }
  const std::string path = internal::SqlFilePath(directory, name);
  const std::string aside = internal::SetSqlFileAside(path);
  ZLOG_ERROR("SqlStorage: Set aside the damaged database " << path << " as " << aside << ": " << reason);
  return open();
}

}  // namespace zagent::common
