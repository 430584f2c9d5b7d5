#pragma once

#include <memory>
#include <string>

#include "common/src/storage/SqlStorage.h"

namespace zagent::ioc::internal {

// Opens the snapshot's database "SnapshotEdr.db" in `directory`, with a cache, and brings it to the present version.
// One that is damaged, that cannot be migrated or that has other tables than its version says is set aside
// ("SnapshotEdr.db.damaged") with an error line, and made new. Throws what OpenSqlStorage throws; a database that is
// locked, not readable or on a full disk is left as it is.
inline constexpr const char* kSnapshotName = "SnapshotEdr.db";
std::unique_ptr<common::SqlStorage> OpenSnapshotStorage(const std::string& directory, common::Scheduler* scheduler,
                                                        const std::string& proc_root = "/proc");

}  // namespace zagent::ioc::internal
