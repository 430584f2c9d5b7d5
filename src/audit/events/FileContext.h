#pragma once

#include <memory>

#include "common/src/util/DigestCache.h"
#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit::internal {

// What every file event is built with and asks later, one for all of them.
struct FileContext {
  std::shared_ptr<edr::LibMagicWrapper> lib_magic;  // null: no type descriptions
  // Null: a file is read anew for each event that is asked for its digests.
  std::shared_ptr<common::util::DigestCache> digests = nullptr;
  // Whether what is gone when it is looked at again is still told, and calls that no watch covers become events.
  bool extended_coverage = false;
};

}  // namespace zagent::audit::internal
