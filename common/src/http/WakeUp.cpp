#include "common/src/http/WakeUp.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "common/src/http/HttpException.h"
#include "common/src/util/ErrnoText.h"

namespace zagent::common {

WakeUp::WakeUp() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!fd_) throw HttpException("Failed to create the wake-up descriptor: " + util::ErrnoText(errno));
}

void WakeUp::Notify() {
  const std::uint64_t one = 1;
  // Only a full counter refuses, and a full counter wakes as well.
  [[maybe_unused]] const ssize_t written = write(fd_.Get(), &one, sizeof(one));
}

void WakeUp::Drain() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t taken = read(fd_.Get(), &count, sizeof(count));
}

void WakeUp::Wait(int timeout_ms) {
  pollfd descriptor{fd_.Get(), POLLIN, 0};
  poll(&descriptor, 1, timeout_ms);
}

}  // namespace zagent::common
