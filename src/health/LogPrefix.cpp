#include "src/health/LogPrefix.h"

namespace zagent::health {

const std::string& LogPrefix() {
  // Never destroyed: threads that outlive main's statics may still log.
  static const std::string* const prefix = new std::string("[EDR]: ");  // NOLINT(cppcoreguidelines-owning-memory)
  return *prefix;
}

}  // namespace zagent::health
