#pragma once

#include <memory>
#include <string>

#include "common/src/util/DigestCache.h"
#include "src/audit/events/DiskLooks.h"
#include "src/audit/events/FolderIdentities.h"
#include "src/audit/events/MountTable.h"
#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit::internal {

// What every file event is built with and asks later, one for all of them.
struct FileContext {
  std::shared_ptr<edr::LibMagicWrapper> lib_magic;  // null: no type descriptions
  // Null: a file is read anew for each event that is asked for its digests.
  std::shared_ptr<common::util::DigestCache> digests = nullptr;
  std::shared_ptr<FolderIdentities> folders = nullptr;  // null: nothing is known but what the disk says
  std::shared_ptr<MountTable> mounts = nullptr;         // null: the device of a stat is always the record's
  std::shared_ptr<DiskLooks> looks = nullptr;           // null: every question is a look at the disk
  // Whether what is gone when it is looked at again is still told, and calls that no watch covers become events.
  bool extended_coverage = false;
  std::string proc_root = "/proc";
};

}  // namespace zagent::audit::internal
