#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/src/storage/SqlStorage.h"

namespace zagent::common {

// How the daemon opens its databases. One that is no database, or is found torn while it is opened, is set aside as
// "<name>.damaged" (an earlier one of this name goes) with an Error line, and made new, once. Throws what the
// constructor of SqlStorage throws; a database that is locked, not readable or on a full disk is left as it is.
std::unique_ptr<SqlStorage> OpenSqlStorage(const std::string& directory, const std::string& name,
                                           const std::function<std::unique_ptr<SqlDataFormatter>()>& make_formatter,
                                           Scheduler* scheduler, SqlStorage::Caching caching);

}  // namespace zagent::common
