#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc {

const std::string& LogPrefix() {
  // Never destroyed: threads that outlive main's statics may still log.
  static const std::string* const prefix = new std::string("[IOC]: ");  // NOLINT(cppcoreguidelines-owning-memory)
  return *prefix;
}

}  // namespace zagent::ioc
