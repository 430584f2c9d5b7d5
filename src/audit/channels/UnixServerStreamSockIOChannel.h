#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

#include "src/audit/channels/IOChannel.h"

namespace zagent::audit {

// The server's end of a UNIX stream socket, one client at a time: it accepts only while it has no client, and a second
// one waits in the kernel's queue until the first has gone. Send reaches the present client.
//
// The daemon itself never builds one: it is the end of the reference agent and of tests.
class UnixServerStreamSockIOChannel : public IOChannel {
 public:
  // true: a client has come; false: it has gone.
  using ClientCallback = std::function<void(bool present)>;

  static constexpr std::size_t kBufferSize = 65'536;
  static constexpr std::size_t kMaxPathLength = 90;

  // `mode` is that of the folders which are created when the path's folder is missing; the socket gets its read and
  // write bits (0700 gives a socket of mode 0600). Throws IOChannelException: InvalidData for a path that is empty or
  // longer than 90 bytes or whose folder cannot be made, AccessDenied.
  UnixServerStreamSockIOChannel(std::string path, mode_t mode);
  UnixServerStreamSockIOChannel(const UnixServerStreamSockIOChannel&) = delete;
  UnixServerStreamSockIOChannel& operator=(const UnixServerStreamSockIOChannel&) = delete;
  ~UnixServerStreamSockIOChannel() override;

  // Replaces whatever stands at the path. Throws IOChannelException: AccessDenied, InvalidData, InvalidState when the
  // channel is running. A failed Start may be tried again.
  void Start() override;
  // Drops the client and removes the path.
  void Stop() override;

  // Called on the event loop's thread. Throws IOChannelException(InvalidState) while the channel is running.
  void SetClientCallback(ClientCallback callback);

 protected:
  bool Read(Bytes& data) override;
  Error OnEOF() override;

 private:
  void CreateFolder() const;
  Error CreateSocket();
  Error Bind();
  bool Accept();
  void CloseAll();

  std::string path_;
  mode_t mode_;
  ClientCallback client_callback_;
  std::atomic<int> listener_{-1};
  std::atomic<int> client_{-1};
  bool bound_ = false;
};

}  // namespace zagent::audit
