#include "tools/reference-agent/ControlSocket.h"

#include <thread>
#include <utility>

namespace zagent::reference_agent {

ControlSocket::ControlSocket(std::string path, ConnectionCallback on_connection)
    : path_(std::move(path)), on_connection_(std::move(on_connection)) {}

void ControlSocket::Open() {
  auto channel = std::make_unique<audit::UnixServerStreamSockIOChannel>(path_, 0700);
  channel->SetClientCallback(on_connection_);
  channel->Start();
  channel_ = std::move(channel);
}

void ControlSocket::Close() {
  channel_.reset();
}

void ControlSocket::Send(const std::string& json) {
  if (!channel_) throw audit::IOChannelException(audit::IOChannel::Error::InvalidState);
  std::this_thread::sleep_until(next_send_);
  channel_->Send({json.begin(), json.end()});
  next_send_ = std::chrono::steady_clock::now() + kGap;
}

}  // namespace zagent::reference_agent
