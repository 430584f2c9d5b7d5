#include "src/edr/host/Daemon.h"

int main() {
  zagent::edr::host::Daemon daemon;
  return static_cast<int>(daemon.Run());
}
