#pragma once

#include <memory>

#include "src/edr/LibMagicWrapper.h"

namespace zagent::audit::internal {

// What every file event is built with and asks later, one for all of them.
struct FileContext {
  std::shared_ptr<edr::LibMagicWrapper> lib_magic;  // null: no type descriptions
};

}  // namespace zagent::audit::internal
