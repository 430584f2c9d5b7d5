#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string>

namespace zagent::audit::internal {

// A path as the kernel takes it; what is longer than 107 bytes is cut.
struct UnixAddress {
  explicit UnixAddress(const std::string& path);
  [[nodiscard]] const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address); }
  [[nodiscard]] static socklen_t Size() { return sizeof(sockaddr_un); }

  sockaddr_un address{};
};

// Room for four reads in the kernel. False, with errno, when the kernel refuses.
bool SetReceiveBuffer(int fd, std::size_t read_buf_size);

}  // namespace zagent::audit::internal
