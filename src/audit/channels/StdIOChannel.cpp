#include "src/audit/channels/StdIOChannel.h"

#include <exception>
#include <stdexcept>

namespace zagent::audit {

StdIOChannel::StdIOChannel(int read_fd, int write_fd, std::size_t read_buf_size) : IOChannel(read_buf_size, 0) {
  if (read_fd < 0) throw std::runtime_error("StdIOChannel: Read FD cannot be negative");
  Error error = ConfigureFD(read_fd);
  if (error == Error::Success && write_fd >= 0) error = ConfigureFD(write_fd);
  if (error != Error::Success) throw IOChannelException(error);
  read_fd_ = read_fd;
  write_fd_ = write_fd < 0 ? -1 : write_fd;
}

StdIOChannel::~StdIOChannel() {
  try {
    Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

}  // namespace zagent::audit
