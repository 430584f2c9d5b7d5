#include "src/edr/host/ExitFlag.h"

namespace zagent::edr::host {

ExitFlag& ProcessExitFlag() {
  static constinit ExitFlag flag{false};
  return flag;
}

}  // namespace zagent::edr::host
