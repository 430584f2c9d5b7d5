#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "src/audit/channels/UnixServerStreamSockIOChannel.h"

namespace zagent::reference_agent {

// The socket that the daemon connects to. The path is there only between Open and Close; its folders are made with mode
// 0700, the socket has mode 0600. Used by one thread.
class ControlSocket {
 public:
  // Called on a thread of the socket: true when the daemon has connected, false when its connection has ended.
  using ConnectionCallback = std::function<void(bool connected)>;

  // The daemon takes what arrives without a gap of about 80 ms for one command, so a command goes out in one write and
  // the next one waits.
  static constexpr std::chrono::milliseconds kGap{250};

  ControlSocket(std::string path, ConnectionCallback on_connection);

  // Throw audit::IOChannelException.
  void Open();
  void Close();
  // Sends one command. Blocks for the rest of the gap behind the last one.
  void Send(const std::string& json);

  [[nodiscard]] bool IsOpen() const { return channel_ != nullptr; }
  [[nodiscard]] const std::string& Path() const { return path_; }

 private:
  std::string path_;
  ConnectionCallback on_connection_;
  std::unique_ptr<audit::UnixServerStreamSockIOChannel> channel_;
  std::chrono::steady_clock::time_point next_send_;
};

}  // namespace zagent::reference_agent
