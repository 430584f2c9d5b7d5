#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "common/src/util/Clock.h"
#include "src/audit/channels/IOChannel.h"

namespace zagent::audit {

// The client's end of a UNIX stream socket. When the server goes away it tries to come back: once a second, at most
// `reconnect_limit` times, before the loop ends through the error callback with Timeout.
class UnixClientStreamSockIOChannel : public IOChannel {
 public:
  using ReconnectCallback = std::function<void()>;

  static constexpr std::size_t kBufferSize = 65'536;
  static constexpr std::size_t kMaxPathLength = 91;

  // reconnect_limit 0: no limit; negative: never reconnects. Throws IOChannelException(InvalidData) for a path that is
  // empty or longer than 91 bytes. Connects in Start only.
  UnixClientStreamSockIOChannel(std::string path, std::int32_t reconnect_limit,
                                common::util::Clock& clock = common::util::Clock::Real());
  UnixClientStreamSockIOChannel(const UnixClientStreamSockIOChannel&) = delete;
  UnixClientStreamSockIOChannel& operator=(const UnixClientStreamSockIOChannel&) = delete;
  ~UnixClientStreamSockIOChannel() override;

  // Throws IOChannelException: RemoteFailure when nobody listens, AccessDenied, InvalidData when there is no such path,
  // InvalidState when the channel is running, Unknown for the rest. A failed Start may be tried again.
  void Start() override;
  void Stop() override;

  // Called on the event loop's thread after each successful reconnection. Throws IOChannelException(InvalidState)
  // while the channel is running.
  void SetReconnectCallback(ReconnectCallback callback);
  // The same for the end of a connection, before the first attempt to come back.
  void SetDisconnectCallback(ReconnectCallback callback);

 protected:
  Error OnEOF() override;

 private:
  Error CreateSocket();
  Error Connect();
  Error Reconnect();
  void CloseSocket();
  // One second, or less when the channel is being stopped.
  void PauseBeforeNextAttempt();

  std::string path_;
  std::int32_t reconnect_limit_;
  common::util::Clock& clock_;
  ReconnectCallback reconnect_callback_;
  ReconnectCallback disconnect_callback_;
  std::atomic<int> socket_{-1};
  std::mutex pause_mutex_;
  std::condition_variable pause_condition_;
};

}  // namespace zagent::audit
