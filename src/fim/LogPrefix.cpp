#include "src/fim/LogPrefix.h"

namespace zagent::fim {

const std::string& LogPrefix() {
  // Never destroyed: threads that outlive main's statics may still log.
  static const std::string* const prefix = new std::string("[FIM]: ");  // NOLINT(cppcoreguidelines-owning-memory)
  return *prefix;
}

}  // namespace zagent::fim
