#pragma once

#include <cstddef>

#include "src/audit/channels/IOChannel.h"

namespace zagent::audit {

// A channel over two descriptors that somebody else has opened and closes: a terminal, a pair of pipes.
class StdIOChannel final : public IOChannel {
 public:
  // Makes both descriptors non-blocking and close-on-exec; a negative write_fd means "read only". Throws
  // std::runtime_error "StdIOChannel: Read FD cannot be negative", IOChannelException for a descriptor that is not
  // open.
  StdIOChannel(int read_fd, int write_fd, std::size_t read_buf_size);
  StdIOChannel(const StdIOChannel&) = delete;
  StdIOChannel& operator=(const StdIOChannel&) = delete;
  ~StdIOChannel() override;
};

}  // namespace zagent::audit
