#include "src/audit/channels/UnixSocket.h"

namespace zagent::audit::internal {

UnixAddress::UnixAddress(const std::string& path) {
  address.sun_family = AF_UNIX;
  // The last byte stays NUL.
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
}

bool SetReceiveBuffer(int fd, std::size_t read_buf_size) {
  const int size = static_cast<int>(4 * read_buf_size);
  return setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == 0;
}

}  // namespace zagent::audit::internal
